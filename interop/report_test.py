"""The page that report makes, against what olefile and 7zz say of the document, and in a real browser where there is
one (Debian's chromium-headless-shell; scripts/setup --browser installs it)."""

import html.parser
import json
import os
import pathlib
import re
import shutil
import subprocess
import unittest

import olefile

from vexel_cli import DATA, SAMPLES, CommandTest, encode, listing, nodes, run, seven_zip, vexel

BROWSER = next(filter(None, map(shutil.which, ["chromium-headless-shell", "chromium", "google-chrome"])), None)

# Runs in the page: what fails from the first line on, and in the end what does not fit and what sorting, filtering and
# the switch do.
LISTEN = "<script>var faults=[];addEventListener('error',e=>faults.push(e.message),true);"\
    "addEventListener('securitypolicyviolation',e=>faults.push(e.blockedURI))</script>"
PROBE = """<script>(()=>{
const walker=document.createTreeWalker(document.querySelector("main"),NodeFilter.SHOW_TEXT), out=[];
let texts=0;
for(let text;text=walker.nextNode();){
  const range=document.createRange(); range.selectNodeContents(text);
  const at=range.getBoundingClientRect(), box=text.parentElement.closest("td,th,dd,dt,p,li,h1,h2,label,.t,.h,output,footer");
  if(!box||!at.width||!at.height||!text.data.trim())continue;
  ++texts;
  const style=getComputedStyle(box), in_=box.getBoundingClientRect(), clips=style.overflow==="hidden";
  if(at.bottom>in_.bottom+1||at.top<in_.top-1||!clips&&(at.right>in_.right+1||at.left<in_.left-1))
    out.push([box.className||box.tagName,text.data,[at.left,at.top,at.right,at.bottom],[in_.left,in_.top,in_.right,in_.bottom]]);
}
const rows=()=>[...document.querySelectorAll("tbody tr")].filter(r=>r.getClientRects().length);
const size=rows().length, head=[...document.querySelectorAll("th")].find(h=>h.textContent==="Size");
const wide=document.documentElement.scrollWidth-innerWidth;
head.firstChild.click();
const sorted=rows().map(r=>+r.cells[1].dataset.v);
const find=document.querySelector("#find"); find.value="%05sum"; find.dispatchEvent(new Event("input"));
const found=rows().map(r=>r.cells[0].firstChild.textContent);
const maps=()=>[...document.querySelectorAll(".map")].filter(m=>m.getClientRects().length).map(m=>m.className);
const before=maps(); document.querySelector("#by-packed")?.click();
const pre=document.createElement("pre"); pre.id="probe";
pre.textContent=JSON.stringify({faults,out,texts,size,wide,sorted,found,before,after:maps()});
document.body.append(pre);
})()</script>"""


class Page(html.parser.HTMLParser):
    """The rows of the page's table: values of their cells, and the row's text; and whatever would be loaded."""

    def __init__(self, text):
        super().__init__()
        self.rows, self.loads, self.text, self.is_table = {}, [], "", False
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.loads += [values[name] for name in ("src", "href", "data", "srcset")
                       if name in values and not values[name].startswith("#n")]
        self.loads += [tag] if tag in ("link", "img", "iframe", "base", "object", "svg") else []
        if tag == "tbody":
            self.is_table = True
        if self.is_table and tag == "tr":
            self.cells = []
        if self.is_table and tag == "td":
            self.cells.append(values.get("data-v", ""))
        if self.is_table and tag == "bdi":
            self.begin = len(self.text)

    def handle_endtag(self, tag):
        if self.is_table and tag == "bdi":
            self.rows[self.text[self.begin:]] = self.cells

    def handle_data(self, data):
        self.text += data


class Report(CommandTest):
    def page(self, document):
        target = self.directory / f"{document.name}.html"
        self.assertEqual(self.succeed("report", document, "-o", target), b"")
        text = target.read_text(encoding="utf-8")
        self.assertNotRegex(text, r"https?:|@import|url\(")
        page = Page(text)
        self.assertEqual(page.loads, [])
        return page

    def package(self):
        """Names that try to be part of the page, and such as do not fit."""
        tree = self.directory / "tree"
        for name, size in [("<img src=x onerror=alert(1)>", 9000), ("a \"quoted\" & 'name'", 60_000), ("l" * 200, 30_000),
                           ("deep/er/and/deeper/" + "x" * 90, 200_000), ("deep/er/other", 70_000), ("empty", 0),
                           ("\u202eright to left", 50_000), ("Чертёж/Лист 1", 40_000), ("%05SummaryInformation", 700),
                           *((f"many/{n}", 100 * n) for n in range(120))]:
            (tree / name).parent.mkdir(parents=True, exist_ok=True)
            (tree / name).write_bytes((name.encode() * size)[:size])
        package = self.directory / "odd & names.7z"
        seven_zip("a", package, ".", "-ms=off", "-m0=lzma2:d=1m", cwd=tree)
        return package

    def test_compound_files(self):
        for name in SAMPLES:
            with self.subTest(name):
                page, wanted = self.page(self.sample(name)), {}
                for names, entry in nodes(DATA / name).items():
                    for depth in range(1, len(names) + 1):
                        path = "/".join(map(encode, names[:depth]))
                        wanted[path] = wanted.get(path, 0) + (entry.size if entry.entry_type == olefile.STGTY_STREAM else 0)
                self.assertEqual({path: int(cells[1]) for path, cells in page.rows.items()}, wanted)
        self.assertIn("no streams to read. No damage", self.page(DATA / "empty.7z").text)
        self.assertIn("by John Machin", Page((self.directory / "namesdemo.xls.html").read_text()).text)

    def test_packages(self):
        for package in self.package(), DATA / "plain-lzma2.7z", DATA / "copy.7z":
            with self.subTest(package.name):
                page, items = self.page(package), listing(package)
                packed = {path: 0 for path in items if path != "."}
                for path, item in items.items():
                    for above in (path, *map(str, pathlib.PurePath(path).parents)):
                        if above != ".":
                            packed[above] += int(item["Packed Size"] or 0)
                self.assertEqual({path: int(cells[2]) for path, cells in page.rows.items()}, packed)
                self.assertIn("No damage was found", page.text)
        solid = self.page(DATA / "solid.7z")
        block = sum(int(item["Packed Size"] or 0) for item in listing(DATA / "solid.7z").values())
        self.assertAlmostEqual(sum(int(cells[2]) for path, cells in solid.rows.items() if "/" not in path), block, delta=9)

    def test_damage(self):
        data = bytearray((DATA / "copy.7z").read_bytes())
        data[32 + 5000] ^= 1
        damaged = self.directory / "damaged.7z"
        damaged.write_bytes(data)
        self.assertRegex(self.page(damaged).text, r'(?s)1 fault found.*cannot open "d/e/deep": 0x8003001e')
        self.fail_with(1, "html.*0x80030050.*--force", "report", DATA / "copy.7z", "-o", self.directory / "damaged.7z.html")
        self.assertIn(b"<!doctype html>", vexel("report", damaged).stdout)
        self.fail_with(1, "cannot open", "report", self.directory / "missing")
        for name in "foreign-tree.cfb", "copy.7z":
            document, link = self.sample(name), self.directory / f"link-{name}"
            os.link(document, link)
            for page in document, link:
                self.fail_with(2, "over the document itself", "report", document, "-o", page, "--force")
            self.assertEqual(document.read_bytes(), (DATA / name).read_bytes())

    @unittest.skipUnless(BROWSER, "no browser: scripts/setup --browser installs one")
    def test_in_a_browser(self):
        for document in self.package(), self.sample("foreign-tree.cfb"), self.sample("namesdemo.xls"):
            rows = self.page(document).rows
            page = self.directory / f"{document.name}.html"
            probed = self.directory / "probed.html"
            probed.write_text(page.read_text().replace("<title>", LISTEN + "<title>").replace("</body>", PROBE + "</body>"))
            for width in 360, 700, 1280:
                with self.subTest((document.name, width)):
                    shown = run([BROWSER, "--no-sandbox", "--headless", "--disable-gpu", f"--window-size={width},900",
                                 f"--user-data-dir={self.directory / 'profile'}", "--dump-dom", probed.as_uri()])
                    probe = re.search(r'<pre id="probe">(.*?)</pre>', shown.stdout.decode(), re.DOTALL)
                    self.assertTrue(probe, shown.stderr[-2000:])
                    result = json.loads(html.unescape(probe[1]))
                    self.assertEqual((result["faults"], result["out"], result["size"]), ([], [], len(rows)))
                    self.assertGreater(result["texts"], 3 * len(rows))
                    self.assertLessEqual(result["wide"], 0)
                    self.assertEqual(result["sorted"], sorted((int(cells[1]) for cells in rows.values()), reverse=True))
                    self.assertEqual(result["found"], [path for path in rows if "%05sum" in path.lower()])
                    shape = "tall" if width < 640 else "wide"
                    self.assertEqual(result["before"], [f"map {shape} size"])
                    self.assertEqual(result["after"], [f"map {shape} " + ("packed" if ".7z" in document.name else "size")])


if __name__ == "__main__":
    unittest.main()
