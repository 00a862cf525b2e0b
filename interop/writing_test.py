"""What put, mv and rm leave in documents of both formats, read with olefile, gsf and 7zz."""

import re
import subprocess
import unittest

from vexel_cli import SAMPLES, CommandTest, package_snapshot, snapshot


def content(size):
    return bytes((i * 7 + i // 256 * size) & 0xFF for i in range(size))


def gsf_cat(path, node):
    """A stream as gsf reads it."""
    name = re.sub("%(..)", lambda escape: chr(int(escape[1], 16)), node)
    return subprocess.run(["gsf", "cat", path, name], capture_output=True, check=True).stdout


class Writing(CommandTest):
    def both(self):
        """One document in both formats, and what reads each."""
        compound, package = self.sample("foreign-tree.cfb"), self.directory / "package.7z"
        self.succeed("convert", compound, package)
        unpacked = iter(self.directory / f"unpacked {number}" for number in range(100))
        return [(compound, snapshot), (package, lambda path: package_snapshot(path, next(unpacked)))]

    def expect(self, found, wanted):
        self.assertEqual({place for place in found.keys() | wanted.keys() if found.get(place) != wanted.get(place)}, set())

    def put(self, path, wanted, node, data):
        """From a file and from the standard input by turns."""
        source = self.directory / "source file ы"
        source.write_bytes(data)
        if len(data) % 2:
            self.succeed("put", path, node, stdin=data)
        else:
            self.succeed("put", path, node, source)
        self.add_parents(wanted, node)
        wanted[node] = data

    def move(self, path, wanted, node, new):
        self.succeed("mv", path, node, new)
        self.add_parents(wanted, new)
        for place in [p for p in wanted if p == node or p.startswith(node + "/")]:
            wanted[new + place[len(node):]] = wanted.pop(place)

    def remove(self, path, wanted, node):
        self.succeed("rm", path, node)
        for place in [p for p in wanted if p == node or p.startswith(node + "/")]:
            del wanted[place]

    def add_parents(self, wanted, node):
        for depth in range(1, node.count("/") + 1):
            wanted.setdefault("/".join(node.split("/")[:depth]), "")

    def test_put_and_rm_change_only_their_node(self):
        for path, read in [*((self.sample(name), snapshot) for name in SAMPLES if name != "foreign-tree.cfb"), *self.both()]:
            with self.subTest(path.name):
                wanted = read(path)
                streams = [place for place, data in wanted.items() if isinstance(data, bytes)]
                largest = max(streams, key=lambda place: len(wanted[place]))
                for node, size in [("new", 5000), ("empty", 0), (largest, 10), (largest, 300_001),
                                   ("Папка/%05Внутри %25/№1 📐", 4095), ("Папка/31 characters, and no dot here", 4096)]:
                    self.put(path, wanted, node, content(size))
                    self.expect(read(path), wanted)
                for node in "forgotten/source", largest:
                    self.fail_with(1, "standard input holds nothing", "put", path, node)
                    self.expect(read(path), wanted)
                if read == snapshot:
                    self.assertEqual(gsf_cat(path, "new"), content(5000))
                    self.assertEqual(gsf_cat(path, largest), content(300_001))
                for node in [streams[0] if streams[0] != largest else streams[1], "Папка"]:
                    self.remove(path, wanted, node)
                    self.expect(read(path), wanted)

    def test_nodes_are_moved_in_both_formats(self):
        odd = [("C:x", "\\foo/C:\\x"), ("\\foo", "x. ")]  # names that only packages can hold
        for path, read in self.both():
            with self.subTest(path.name):
                wanted = read(path)
                for node, new in [("Contents", "Inhalt"), ("Sub", "Teil"), ("Чертёж", "Teil/%05 x/Чертёж"),
                                  ("Teil/Deep/Deeper", "Deeper"), ("Exact4096", "Many/5"), ("Teil/Deep", "Teil/Tief"),
                                  ("Many/5", "5"), ("Deeper/leaf", "leaf")]:
                    self.move(path, wanted, node, new)
                    self.expect(read(path), wanted)
                self.assertEqual(self.succeed("verify", path), b"")
                self.assertEqual(self.succeed("cat", path, "Inhalt"), wanted["Inhalt"])
        self.put(path, wanted, "C:x", b"odd")
        for node, new in odd:
            self.move(path, wanted, node, new)
        self.expect(read(path), wanted)
        self.assertEqual(self.succeed("cat", path, "x. /C:\\x"), b"odd")
        self.remove(path, wanted, "x. ")
        self.expect(read(path), wanted)

    def test_moves_that_fail_change_nothing(self):
        for path, _ in self.both():
            before = path.read_bytes()
            for status, pattern, node, new in [
                    (1, r"\|missing\": 0x80030002 ", "missing", "new"), (1, r"\|Mini\": 0x80030050 ", "Contents", "Mini"),
                    (1, r"\|Mini\": 0x80030001 ", "Contents", "Mini/x"), (1, r"\|Sub\": 0x80030050 ", "Many", "Sub"),
                    (1, r"\|missing\": 0x80030002 ", "missing/x", "new/y"),
                    (2, "into itself", "Sub", "Sub/Deep/x"), (2, "root", "Sub", ""), (2, "root", "", "x")]:
                with self.subTest((path.name, node, new)):
                    self.fail_with(status, pattern, "mv", path, node, new)
                    self.assertEqual(path.read_bytes(), before)


if __name__ == "__main__":
    unittest.main()
