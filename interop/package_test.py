"""The program on packages and on compound files alike, against 7zz, bsdtar and olefile."""

import datetime
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import unittest
import zlib

from vexel_cli import DATA, CommandTest, bsdtar_names, files_below, listing, seven_zip, snapshot, vexel

# What extract makes of names that files cannot have, and the elements that packages write for them.
NAMES = {"%05SummaryInformation": "%05SummaryInformation", "100%25": "100%25", "%43ON": "CON", "a%3cb%3e": "a<b>",
         "dot%2e": "dot.", "PART": "PART", "Part%~2": "Part", "100%.txt": "100%25.txt", "Чертёж 😀": "Чертёж 😀",
         "C%3a": "C:", "C%3ax": "C:x", "C%3a%5cx": "C:\\x", "C%3a%5cy%5c..%5cx": "C:\\y\\..\\x", "%5cfoo": "\\foo",
         ".%2e": "..", "x.%20": "x. "}


def microseconds(time):
    """Since 1970, of a time as `list` writes it."""
    seconds = datetime.datetime.fromisoformat(time[:26] + "+00:00")
    return (seconds - datetime.datetime.fromtimestamp(0, datetime.timezone.utc)) // datetime.timedelta(microseconds=1)


def packed_items(package):
    """The packed bytes of every item by path, as 7zz tells their order and sizes."""
    items = listing(package)
    data, offset, result = package.read_bytes(), 32, {}
    for path, item in sorted(items.items(), key=lambda pair: int(pair[1]["Block"] or -1)):
        size = int(item["Packed Size"] or 0)
        result[path] = (item["CRC"], data[offset:offset + size])
        offset += size
    return result


class Packages(CommandTest):
    def package(self, tree, name="made.7z"):
        path = self.directory / name
        self.assertEqual(self.succeed("pack", tree, path), b"")
        seven_zip("t", path)
        return path

    def tree(self):
        tree = self.directory / "tree"
        generator = random.Random(5)
        for folder in [tree, *(tree / name for name in NAMES), tree / "deep" / "er"]:
            folder.mkdir(parents=True)
            for size in [0, 1, 5000, 300_000]:
                (folder / f"{size}").write_bytes(generator.randbytes(size // 2) + bytes(size - size // 2))
        for index, name in enumerate(NAMES):
            (tree / "deep" / name).write_bytes(name.encode() * index)
        (tree / "empty").mkdir()
        return tree

    def test_a_folder_becomes_a_package_and_a_folder_again(self):
        tree = self.tree()
        package = self.package(tree)
        found = listing(package)
        wanted = {"/".join(NAMES.get(part, part) for part in path.split("/")): (tree / path, contents)
                  for path, contents in files_below(tree).items()}
        self.assertEqual({path: (int(item["Size"]), int(item["CRC"] or "0", 16)) for path, item in found.items()},
                         {path: (len(contents or b""), zlib.crc32(contents or b"")) for path, (_, contents) in wanted.items()})
        for path, (file, _) in wanted.items():
            modified = datetime.datetime.fromisoformat(found[path]["Modified"][:19])
            self.assertEqual(modified.timestamp(), int(file.stat().st_mtime), path)
        self.assertEqual({name.rstrip("/").replace("\\\\", "\\") for name in bsdtar_names(package)}, found.keys())
        listed = json.loads(self.succeed("list", "--json", package))
        self.assertEqual({node["path"]: node["size"] for node in listed},
                         {path: None if contents is None else len(contents) for path, (_, contents) in wanted.items()})
        self.succeed("extract", package, self.directory / "out")
        (tree / "100%.txt").rename(tree / "100%25.txt")  # extract leaves no "%" as it is
        (tree / "deep" / "100%.txt").rename(tree / "deep" / "100%25.txt")
        self.assertEqual(files_below(self.directory / "out"), files_below(tree))
        self.assertEqual(self.succeed("verify", package), b"")
        self.succeed("convert", package, self.directory / "converted.7z")
        self.assertEqual({path: item["CRC"] for path, item in listing(self.directory / "converted.7z").items()},
                         {path: item["CRC"] for path, item in found.items()})
        self.check_info(package, sum(contents is None for _, contents in wanted.values()))

    def check_info(self, package, storages):
        info = json.loads(self.succeed("info", "--json", package))
        size, packed, streams = map(int, re.search(r"(\d+) +(\d+) +(\d+) files", seven_zip("l", package).stdout.decode()).groups())
        self.assertEqual([info[key] for key in ["format", "size", "storages", "streams", "bytes", "packed", "ratio"]],
                         ["package", package.stat().st_size, storages, streams, size, packed, packed / size])

    def test_what_cannot_be_packed_leaves_nothing(self):
        tree = self.directory / "tree"
        tree.mkdir()
        (tree / "a").write_bytes(b"a")
        there = self.directory / "there"
        there.write_bytes(b"there")
        self.fail_with(1, r'cannot create "Z:.*\\there": 0x80030050 .*--force', "pack", tree, there)
        self.assertEqual(there.read_bytes(), b"there")
        self.succeed("pack", "--force", tree, there)
        self.assertEqual(listing(there).keys(), {"a"})
        before = there.read_bytes()
        for name, pattern in [("%61", r"\\(a|%61)\": 0x80030050 "), ("x%2fy", r"x%2fy\": 0x800300fc "), ("%", r"%\": 0x800300fc ")]:
            with self.subTest(name):
                (tree / name).write_bytes(b"b")
                self.fail_with(1, pattern, "pack", "--force", tree, there)
                (tree / name).unlink()
        (tree / "link").symlink_to(self.directory)
        self.fail_with(1, "link to a directory", "pack", tree, self.directory / "new")
        self.fail_with(1, r"missing\": 0x8", "pack", self.directory / "missing", self.directory / "new")
        self.assertEqual(there.read_bytes(), before)
        self.assertEqual({path.name for path in self.directory.iterdir()}, {"tree", "there"})
        (self.directory / "nothing").mkdir()
        self.assertEqual(listing(self.package(self.directory / "nothing")), {})

    def test_packages_of_others_are_read_as_they_were_made(self):
        tree = self.directory / "tree"
        generator = random.Random(1)
        for index in range(600):
            folder = tree / f"d{index % 7}" / ("Чертёж 😀" if index % 3 else "e")
            folder.mkdir(parents=True, exist_ok=True)
            size = generator.choice([0, 1, 100, 5000, 40000])
            (folder / f"f{index}").write_bytes(generator.randbytes(size) if index % 2 else bytes(size))
        (tree / "large").write_bytes(generator.randbytes(1 << 20) * 8)
        contents = files_below(tree)
        wanted = {path: (None if data is None else len(data), (tree / path).stat().st_mtime_ns // 1000)
                  for path, data in contents.items()}
        for name, make in {
                "lzma2": ["7zz", "a", "-ms=off", "-m0=lzma2"], "lzma": ["7zz", "a", "-ms=off", "-m0=lzma", "-mx=9"],
                "copy": ["7zz", "a", "-mx=0"], "plain": ["7zz", "a", "-ms=off", "-mhc=off", "-mtc=on"],
                "fast": ["7zz", "a", "-ms=off", "-mx=1", "-mmt=on"],
                "bsdtar": ["bsdtar", "--options", "compression=store", "--format", "7zip", "-cf"]}.items():
            with self.subTest(name):
                package, out = self.directory / f"{name}.7z", self.directory / name
                subprocess.run([*make, package, *os.listdir(tree)], cwd=tree, capture_output=True, check=True)
                found = {node["path"]: (node["size"], microseconds(node["modified"]))
                         for node in json.loads(self.succeed("list", "--json", package))}
                self.assertEqual(found, wanted)
                self.succeed("extract", package, out)
                self.assertEqual(files_below(out), contents)

    def test_put_gives_its_node_the_time_and_leaves_others_as_they_are_packed(self):
        package = self.directory / "package.7z"
        shutil.copy(DATA / "plain-lzma2.7z", package)
        packed = packed_items(package)
        before = {path: item["Modified"] for path, item in listing(package).items()}
        self.succeed("put", package, "d/x", stdin=b"new")
        self.succeed("put", package, "new/one", stdin=b"new")
        now = datetime.datetime.now(datetime.timezone.utc)
        nodes = {node["path"]: node["modified"] for node in json.loads(self.succeed("list", "--json", package))}
        for path in ["d/x", "new", "new/one"]:
            age = now - datetime.datetime.fromisoformat(nodes[path][:19] + "+00:00")
            self.assertLess(abs(age), datetime.timedelta(minutes=5), path)
        after = {path: item["Modified"] for path, item in listing(package).items()}
        self.assertEqual({path for path in before if after[path] != before[path]}, {"d/x"})
        packed_now = packed_items(package)
        self.assertEqual({path for path in packed if packed_now[path] != packed[path]}, {"d/x"})

    def test_damage_costs_the_damaged_nodes(self):
        package = self.package(self.tree())
        items = packed_items(package)
        data = bytearray(package.read_bytes())
        damaged = ["deep/er/300000", "CON/5000"]
        for name in damaged:
            data[data.index(items[name][1]) + len(items[name][1]) // 2] ^= 0x40
        package.write_bytes(data)
        output = self.fail_with(1, r'2 faults in "Z:.*made.7z"\n', "verify", package).decode()
        self.assertEqual(output.count("\n"), 2)
        for name in damaged:
            self.assertRegex(output, rf'\|{name}": 0x8')
            self.fail_with(1, rf'\|{name}": 0x8', "cat", package, name)
        result = vexel("cat", package, "**")
        sizes = sum(int(item["Size"]) for path, item in listing(package).items() if path not in damaged)
        self.assertEqual((result.returncode, result.stderr.count(b"\n"), len(result.stdout)), (1, 2, sizes))
        self.assertEqual(vexel("cat", package, *damaged, "0", "-o", self.directory / "not whole").returncode, 1)
        self.assertFalse((self.directory / "not whole").exists())
        result = vexel("extract", package, self.directory / "out")
        self.assertEqual((result.returncode, result.stderr.count(b"\n")), (1, 2))
        for name in damaged:
            self.assertIn(f"|{name}".encode(), result.stderr)
        whole = {path for path, item in items.items()} - set(damaged)
        self.assertEqual(len(files_below(self.directory / "out")), len(whole))
        self.assertEqual({path for path in self.directory.iterdir() if "part" in path.name}, set())

    def test_what_cannot_be_read_is_not_damaged(self):
        (self.directory / "alone").write_bytes(b"alone")
        mixed = pathlib.Path(shutil.copy(DATA / "solid.7z", self.directory / "mixed.7z"))
        seven_zip("a", "-ms=off", mixed, "alone", cwd=self.directory)
        for package, nodes in [(mixed, 5), (DATA / "encrypted-data.7z", 1), (DATA / "unsupported-ppmd.7z", 4),
                               (DATA / "encrypted-header.7z", 0)]:
            with self.subTest(package.name):
                told = "could not be checked" if nodes else "cannot read, or encrypted"
                output = self.fail_with(3, told, "verify", package)
                self.assertEqual(output.count(b"cannot read, or encrypted"), nodes)
                self.assertNotIn(b"damaged", output)
                self.fail_with(1, "cannot read, or encrypted", "convert", package, self.directory / "new")
        self.assertEqual(self.succeed("cat", mixed, "alone"), b"alone")
        self.fail_with(1, "which salvage takes apart", "cat", mixed, "d/x")
        self.succeed("salvage", mixed, self.directory / "apart.7z")
        self.succeed("verify", self.directory / "apart.7z")
        (self.directory / "x%2fy").write_bytes(b"a slash in a node's name")
        seven_zip("a", self.directory / "slash.7z", self.directory / "x%2fy")
        output = self.fail_with(3, "1 node could not be checked", "verify", self.directory / "slash.7z")
        self.assertRegex(output, rb'slash.7z\|x": 0x80030002 \(its name goes on with a "/"')
        self.fail_with(1, "0x800300fc .*opened again", "put", self.directory / "slash.7z", "a%2fb", stdin=b"x")

    def test_info_tells_formats_apart(self):
        compound = json.loads(self.succeed("info", "--json", self.sample("foreign-tree.cfb")))
        nodes = snapshot(self.directory / "foreign-tree.cfb")
        streams = [data for data in nodes.values() if isinstance(data, bytes)]
        self.assertEqual([compound[key] for key in ["format", "storages", "streams", "bytes", "packed", "ratio"]],
                         ["compound file", len(nodes) - 1 - len(streams), len(streams), sum(map(len, streams)), None, None])
        for contents in [b"", b"text" * 100]:
            (self.directory / "other").write_bytes(contents)
            info = json.loads(self.succeed("info", "--json", self.directory / "other"))
            self.assertEqual((info["format"], info["size"], info["storages"]), (None, len(contents), None))
        self.assertIn(b"neither", self.succeed("info", self.directory / "other"))
        (self.directory / "other").write_bytes(b"7z\xbc\xaf\x27\x1c")
        self.fail_with(1, "0x800300fb ", "info", self.directory / "other")


if __name__ == "__main__":
    unittest.main()
