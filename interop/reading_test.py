"""What list, tree, cat and extract say about a file, against what olefile says."""

import concurrent.futures
import datetime
import json
import os
import unittest

import olefile

from vexel_cli import SAMPLES, CommandTest, encode, files_below, nodes, seven_zip, snapshot


def iso8601(filetime):
    if filetime == 0:
        return None
    seconds, fraction = divmod(filetime, 10**7)
    time = datetime.datetime(1601, 1, 1) + datetime.timedelta(seconds=seconds)
    return time.isoformat() + (f".{fraction:07d}" if fraction else "") + "Z"


def expected_list(path):
    def describe(entry):
        stream = entry.entry_type == olefile.STGTY_STREAM
        return {"type": "stream" if stream else "storage", "size": entry.size if stream else None,
                "created": iso8601(entry.createTime), "modified": iso8601(entry.modifyTime)}

    return {"/".join(map(encode, names)): describe(entry) for names, entry in nodes(path).items()}


class Reading(CommandTest):
    def test_list_as_json_says_what_olefile_says(self):
        for name in SAMPLES:
            with self.subTest(name):
                path = self.sample(name)
                listed = json.loads(self.succeed("list", "--json", path))
                self.assertEqual({node.pop("path"): node for node in listed}, expected_list(path))
                self.assertEqual(len(listed), len(nodes(path)))

    def test_list_and_tree_show_the_same_nodes(self):
        path = self.sample("foreign-tree.cfb")
        wanted = json.loads(self.succeed("list", path, "--json"))
        lines = [line.split(None, 3) for line in self.succeed("list", "--bytes", path).decode().splitlines()]
        self.assertEqual([(kind, size, place) for kind, size, _, place in lines],
                         [(node["type"], "-" if node["size"] is None else str(node["size"]), node["path"])
                          for node in wanted])
        drawn, names = [], []
        for line in self.succeed("tree", path).decode().splitlines()[1:]:
            branch, _, label = line.partition("── ")
            names[len(branch) // 4:] = [label.rpartition(" (")[0].rstrip("/")]
            drawn.append("/".join(names))
        self.assertEqual(drawn, [node["path"] for node in wanted])

        def flat(trees, above=""):
            for node in trees:
                yield {"path": above + node["name"], "type": node["type"], "size": node.get("size")}
                yield from flat(node.get("children", []), above + node["name"] + "/")

        told = [{key: node[key] for key in ("path", "type", "size")} for node in wanted]
        self.assertEqual(list(flat(json.loads(self.succeed("tree", "--json", path)))), told)
        sums = {node["name"]: node["bytes"] for node in json.loads(self.succeed("tree", "--json", path)) if "bytes" in node}
        self.assertEqual(sums, {top: sum(node["size"] or 0 for node in wanted if node["path"].startswith(f"{top}/")) for top in sums})
        self.assertIn(f"── Sub/ ({sums['Sub']})", self.succeed("tree", "--bytes", path).decode())
        for order, key in [("size", lambda node: -1 if node["size"] is None else node["size"]), ("time", lambda node: node["modified"] or "")]:
            self.assertEqual(json.loads(self.succeed("list", "--json", "--sort", order, path)), sorted(wanted, key=key, reverse=True))
        by_name = self.succeed("list", "--sort", "name", path, "Many/*", "Exact*").decode().splitlines()
        self.assertEqual([line.split()[-1] for line in by_name],
                         ["Exact4095", "Exact4096", *(f"Many/item{number:03}" for number in range(40))])
        largest = json.loads(self.succeed("info", "--json", path))["largest"]
        self.assertEqual(largest, [{key: node[key] for key in ("path", "size")}
                                   for node in sorted(wanted, key=lambda node: node["size"] or 0, reverse=True)[:5]])
        deep = json.loads(self.succeed("tree", "--json", path, "Sub/Deep"))
        self.assertEqual(list(flat(deep, "Sub/")), [node for node in told if f"{node['path']}/".startswith("Sub/Deep/")])

    def test_cat_and_extract_give_the_bytes(self):
        for name in SAMPLES:
            with self.subTest(name):
                path = self.sample(name)
                streams = {place: data for place, data in snapshot(path).items() if isinstance(data, bytes)}
                with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
                    contents = pool.map(lambda place: self.succeed("cat", path, place), streams)
                self.assertEqual(dict(zip(streams, contents)), streams)
                self.succeed("extract", path, self.directory / "out")
                extracted = files_below(self.directory / "out")
                self.assertEqual({place: data for place, data in extracted.items() if data is not None}, streams)
                (self.directory / "out").rename(self.directory / f"out of {name}")


class Extracting(CommandTest):
    def test_names_that_the_file_system_cannot_hold(self):
        path = self.sample("file-names.cfb")
        self.succeed("extract", path, self.directory / "out")
        self.assertEqual(sorted(p.name for p in self.directory.iterdir()), ["file-names.cfb", "out"])
        self.assertEqual(sorted(place.name for place in (self.directory / "out").rglob("*")), sorted([
            "%43ON", "%6eul.txt", "%63om1", "%4cPT².a.b", "console", "%2e", ".%2e", "dot%2e", "blank%20", " lead",
            "a%3cb%3ec%22d%7ce%3ff%2ag", "50%25", "tab%09here", "Straße", "half%ud800", "~",
            "one", "two", "three", "four",
            "..%5c..%5cevil--", "C%3a%5cevil%5cabcd", "%5c%5cevil%5cabcde", "..%2f..%2fevil--"]))

    def test_parts_of_a_document(self):
        path = self.sample("foreign-tree.cfb")
        streams = snapshot(path)
        for node, wanted in [("Sub", ["Sub/Deep/Deeper/leaf", "Sub/%05SummaryInformation"]),
                             ("Sub/Deep", ["Deep/Deeper/leaf"]),
                             ("Sub/Deep/Deeper/leaf", ["leaf"])]:
            with self.subTest(node):
                out = self.directory / node.replace("/", " ")
                self.succeed("extract", path, out, node)
                found = {name: data for name, data in files_below(out).items() if data is not None}
                prefix = node.rpartition("/")[0]
                self.assertEqual(found, {name: streams[f"{prefix}/{name}".lstrip("/")] for name in wanted})

    def test_what_stands_in_the_way(self):
        path = self.sample("foreign-tree.cfb")
        out = self.directory / "out"
        (out / "Sub").mkdir(parents=True)
        mine = out / "Sub" / "%05summaryinformation"  # differs in case alone
        mine.write_bytes(b"mine")
        self.fail_with(1, r"out\\Sub\\%05SummaryInformation\": 0x80030050 .*--force", "extract", path, out, "Sub")
        self.assertEqual(mine.read_bytes(), b"mine")
        self.succeed("extract", path, out, "Sub", "--force")
        replaced = [name for name in (out / "Sub").iterdir() if name.is_file()]
        self.assertEqual([p.read_bytes() for p in replaced], [snapshot(path)["Sub/%05SummaryInformation"]])

        (self.directory / "elsewhere").mkdir()
        (out / "Many").symlink_to(self.directory / "elsewhere")
        self.fail_with(1, "a link", "extract", path, out, "--force")
        self.assertEqual(list((self.directory / "elsewhere").iterdir()), [])
        self.fail_with(1, "cannot create", "extract", path, self.directory / "no" / "parent")
        self.fail_with(1, "a file has that name", "extract", path, path)
        mine = self.directory / "mine"
        mine.write_bytes(b"mine")
        self.fail_with(1, "mine.*--force", "cat", path, "Mini", "-o", mine)
        self.assertEqual(mine.read_bytes(), b"mine")
        self.succeed("cat", path, "Mini", "-o", mine, "--force")
        self.assertEqual(mine.read_bytes(), snapshot(path)["Mini"])
        self.fail_with(1, "a directory has that name", "cat", path, "Mini", "-o", out, "--force")
        self.assertNotIn(".part", " ".join(files_below(self.directory)))


class Damaged(CommandTest):
    def patch(self, path, name, offset, size, value):
        """Overwrites a number in the directory entry of that name."""
        data = bytearray(path.read_bytes())
        entry = data.index((name + "\0").encode("utf-16-le"))
        data[entry + offset:entry + offset + size] = value.to_bytes(size, "little")
        path.write_bytes(data)

    def test_a_stream_shorter_than_it_says(self):
        path = self.sample("large-sectors.cfb")
        self.patch(path, "size 300000", 120, 8, 400_000)
        self.fail_with(1, r'\|size 300000": 0x80', "cat", path, "size 300000")
        self.fail_with(1, r'\|size 300000": 0x80', "extract", path, self.directory / "out")
        self.assertNotRegex(" ".join(files_below(self.directory / "out")), "size 300000|part")
        cut = self.sample("foreign-tree.cfb")
        contents = snapshot(cut)["Contents"]
        cut.write_bytes(cut.read_bytes()[:100_000])
        self.assertEqual(self.fail_with(1, r'\|Contents": 0x8003001e', "cat", cut, "Contents"), contents[:87_712])

    def test_a_storage_that_cannot_be_opened_costs_itself(self):
        """Of a package whose directory has a name that the library does not find again."""
        tree, package = self.directory / "tree", self.directory / "slash.7z"
        for place, data in [("x%2fy/in", b"lost"), ("good/a", b"A"), ("z/b", b"B")]:
            (tree / place).parent.mkdir(parents=True)
            (tree / place).write_bytes(data)
        seven_zip("a", "-ms=off", package, ".", cwd=tree)
        before = package.read_bytes()
        for command, wanted in [
                (["list", package], "(?s)good/a.* z/b"), (["list", package, "**"], "(?s)good/a.* z/b"),
                (["list", "--json", package], r'(?s)"z/b".*\]'), (["tree", package], "(?s)a .1 B.*z/ .1 B.*b .1 B"),
                (["tree", package, "*"], "(?s)a .1 B.*z/ .1 B.*b .1 B"), (["tree", "--json", package], r'(?s)"b".*\]'),
                (["cat", package, "**"], "AB"), (["info", package], r"streams +2\n"), (["extract", package, self.directory / "all"], r"\A\Z"),
                (["extract", package, self.directory / "matching", "**"], r"\A\Z"), (["rm", package, "**/a"], r"\A\Z")]:
            with self.subTest(command):
                self.assertRegex(self.fail_with(1, r'slash.7z\|x": 0x80030002 \(its name goes on', *command).decode(), wanted)
        for name in "all", "matching":
            found = files_below(self.directory / name)
            self.assertEqual({place: data for place, data in found.items() if data}, {"good/a": b"A", "z/b": b"B"})
        self.assertEqual(package.read_bytes(), before)
        self.assertRegex(self.succeed("report", package).decode(), '>x</bdi><span class="d">/ 0 streams</span><span class="fault">')

    def test_trees_without_end_end(self):
        path = self.sample("deep.cfb")
        output = self.fail_with(1, r"too deep .*0x80030109 ", "list", path)
        self.assertEqual(output.count(b"\n"), 256)
        self.assertEqual(len(json.loads(self.fail_with(1, r"too deep ", "list", "--json", path))), 256)
        self.patch(path, "bottom", 66, 1, 1)  # the stream becomes a storage
        self.patch(path, "bottom", 76, 4, 1)  # that contains the first one
        self.fail_with(1, "0x80", "list", path)


if __name__ == "__main__":
    unittest.main()
