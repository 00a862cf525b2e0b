"""Nodes named by patterns, against regular expressions over what olefile finds, and what is said of names that there
are not."""

import json
import re
import shutil
import unittest

from vexel_cli import DATA, CommandTest, encode, files_below, nodes, seven_zip, snapshot

PATTERNS = ["*", "**", "Many/item00?", "Many/*9", "Sub/**", "**/leaf", "*/*/*", "S*/**/D*r", "*b/**/*", "**/%05*", "??????",
            "Чер*/*", "many/ITEM01?", "**/item*3*", "Sub/Deep/Deeper/*f"]


def expression(pattern):
    """What the pattern means. Case does not count in compound files."""
    pattern = re.escape(pattern.removesuffix("**") + "**/*" * pattern.endswith("**"))
    return re.compile(pattern.replace(r"\*\*/", "(?:[^/]+/)*").replace(r"\*", "[^/]*").replace(r"\?", "[^/]"), re.IGNORECASE)


class Naming(CommandTest):
    def listed(self, *arguments):
        return [node["path"] for node in json.loads(self.succeed("list", "--json", *arguments))]

    def test_patterns_mean_what_they_say(self):
        path = self.sample("foreign-tree.cfb")
        places = self.listed(path)
        for pattern in PATTERNS:
            with self.subTest(pattern):
                wanted = [place for place in places if expression(pattern).fullmatch(place)]
                self.assertNotEqual(wanted, [])
                self.assertEqual(self.listed(path, pattern), wanted)
        self.assertEqual(self.listed(path, "Mini", "Sub/Deep*", "*ini"), ["Sub/Deep", "Mini"])
        self.assertEqual(self.listed(path, "mini", "SUB/deep"), ["Sub/Deep", "Mini"])
        self.assertEqual(self.listed(path, "sub/DEEP/*", "SUB/d*"), ["Sub/Deep", "Sub/Deep/Deeper"])
        for command in ["mv", path, "M*", "new"], ["gunzip", path, "M*"]:
            self.fail_with(1, r'\|M\*": 0x80030002 .*not a pattern', *command)
        for pattern in "Many/x*", "**/no such", "Mini/*":
            self.fail_with(1, "nothing matches|stream, not a storage", "list", path, pattern)
        package = self.directory / "case.7z"
        self.succeed("convert", path, package)
        self.fail_with(1, r'\|many": 0x80030002 .*; did you mean "Many"\?\)', "list", package, "many/*")
        self.fail_with(1, r'nothing matches ".*\|m\*": 0x80030002 ', "list", package, "m*")

    def test_commands_take_them(self):
        path, streams = self.sample("foreign-tree.cfb"), snapshot(DATA / "foreign-tree.cfb")
        self.assertEqual(self.succeed("cat", path, "Many/item00?", "Mini"),
                         b"".join(streams[f"Many/item00{n}"] for n in range(10)) + streams["Mini"])
        for number, (patterns, wanted) in enumerate([
                (["Many/item01?"], {f"item01{n}": f"Many/item01{n}" for n in range(10)}),
                (["**/%05*", "Mini"], {"Sub/%05SummaryInformation": "Sub/%05SummaryInformation", "Mini": "Mini"}),
                (["Sub/*"], {"Deep/Deeper/leaf": "Sub/Deep/Deeper/leaf", "%05SummaryInformation": "Sub/%05SummaryInformation"}),
                (["*/Deep", "**/leaf"], {"Sub/Deep/Deeper/leaf": "Sub/Deep/Deeper/leaf"})]):
            out = self.directory / str(number)
            self.succeed("extract", path, out, *patterns)
            self.assertEqual({name: data for name, data in files_below(out).items() if data is not None},
                             {name: streams[place] for name, place in wanted.items()})
        for document in path, self.directory / "package.7z":
            with self.subTest(document.suffix):
                if document != path:
                    self.succeed("convert", DATA / "foreign-tree.cfb", document)
                before = {(node["path"]) for node in json.loads(self.succeed("list", "--json", document))}
                self.fail_with(1, "missing", "rm", document, "Mini", "missing")
                self.succeed("rm", document, "Many/item00*", "Sub/**", "Mini", "Sub")
                self.assertEqual(set(self.listed(document)),
                                 {place for place in before if not re.match("Many/item00|Sub(/|$)|Mini$", place)})
        self.assertNotIn("Mini", ["/".join(map(encode, names)) for names in nodes(path)])

    def test_files_of_patterns_never_meet(self):
        tree, package = self.directory / "tree", self.directory / "alike.7z"
        wanted = {"Sub/x": b"1", "sub/x": b"2", "A/S": b"3", "S/f": b"4", "Other/f": b"5"}
        for place, data in wanted.items():
            (tree / place).parent.mkdir(parents=True, exist_ok=True)
            (tree / place).write_bytes(data)
        seven_zip("a", package, ".", "-ms=off", cwd=tree)
        for patterns in ["*/x"], ["A/S", "*/f"], ["**"], ["Other/*", "*/*"]:
            with self.subTest(patterns):
                out = self.directory / "out"
                shutil.rmtree(out, ignore_errors=True)
                places = [place for place in wanted if "*/x" not in patterns or place.endswith("x")]
                if "A/S" in patterns:
                    places = ["A/S", "S/f", "Other/f"]
                self.succeed("extract", "--force", package, out, *patterns)
                files = sorted(data for data in files_below(out).values() if data is not None)
                self.assertEqual(files, sorted(wanted[place] for place in places))
        # What stands in the way of one node costs that one.
        shutil.rmtree(out)
        out.mkdir()
        (out / "Other").write_bytes(b"")
        self.fail_with(1, "Other", "extract", package, out, "Other", "A", "S")
        self.assertEqual((out / "A" / "S").read_bytes() + (out / "S" / "f").read_bytes(), b"34")

    def test_patterns_leave_storages_their_class(self):
        path, package = self.sample("foreign-tree.cfb"), self.directory / "classes.7z"
        data = bytearray(path.read_bytes())
        entry = data.index("Many\0".encode("utf-16-le"))
        data[entry + 80:entry + 96] = bytes(range(16))
        path.write_bytes(data)
        self.succeed("convert", path, package)
        for document in path, package:
            self.succeed("rm", document, "Many/*")
        self.assertEqual(self.succeed("diff", path, package), b"")

    def test_names_with_wildcards_in_them(self):
        tree = self.directory / "tree"
        tree.mkdir()
        for name in "a*", "a?", "abc", "a😀":
            (tree / name).write_bytes(name.encode())
        package = self.directory / "stars.7z"
        seven_zip("a", package, ".", "-ms=off", cwd=tree)
        for pattern, wanted in [("a*", ["a*"]), ("a%2a", ["a*"]), ("a%3f", ["a?"]), ("?b?", ["abc"]), ("a**", None), ("??", ["a*", "a?", "a😀"])]:
            with self.subTest(pattern):
                self.assertEqual(sorted(self.listed(package, pattern)),
                                 sorted(wanted if wanted is not None else ["a*", "a?", "abc", "a😀"]))

    def test_the_nearest_name(self):
        path = self.sample("foreign-tree.cfb")
        for arguments, meant in [
                (["lsit", path], "list"), (["dir", path], "list"), (["rename", path], "mv"), (["unzip", path], "extract"),
                (["copy", path], 'extract" or "put'), (["help", "exract"], "extract"), (["list", "--byte", path], "--bytes"), (["extarct", path], "extract"), (["veryfy", path], "verify"),
                (["cat", path, "Many/itme017"], "Many/item017"), (["cat", path, "leaf"], "Sub/Deep/Deeper/leaf"),
                (["cat", path, "Suv/Deep/Deeper/leaf"], "Sub/Deep/Deeper/leaf"), (["rm", path, "Contentz"], "Contents"),
                (["mv", path, "Mni", "Max"], "Mini"), (["extract", path, self.directory / "out", "Чертеж"], "Чертёж"),
                (["cat", path, "zzzzzzzz"], None), (["frobnicate", path], None), (["list", "--colour", path], None)]:
            with self.subTest(arguments):
                hint = re.escape(f'; did you mean "{meant}"?') if meant else r'(?!.*did you mean)'
                self.fail_with(2 if path not in arguments[1:] or arguments[0] not in ("cat", "rm", "mv", "extract") else 1, hint, *arguments)
        shutil.copy(DATA / "foreign-tree.cfb", self.directory / "same.cfb")
        self.assertEqual(path.read_bytes(), (self.directory / "same.cfb").read_bytes())


if __name__ == "__main__":
    unittest.main()
