"""Packages against 7zz and bsdtar: what we write they read, what they write we read."""

import json
import os
import pathlib
import random
import shutil
import struct
import subprocess
import tempfile
import time
import unittest
import zlib

from vexel_cli import BUILD, ROOT, listing, run, seven_zip

WALKS = int(os.environ.get("VEXEL_WALKS", 4))
MUTANTS = int(os.environ.get("VEXEL_MUTANTS", 300))
KILLS = int(os.environ.get("VEXEL_KILLS", 12))
EPOCH = 116444736000000000  # 1970 in the 100 ns units since 1601


def command(*arguments):
    return [ROOT / "scripts" / "wine", BUILD / "bin" / "archive_tool.exe", *map(str, arguments)]


def tool(*arguments):
    result = run(command(*arguments))
    if result.returncode:
        raise AssertionError(f"{arguments}: {result.stderr.decode()}")
    return result.stdout.decode()


def dump(path):
    """What the library makes of a package: the status of opening it, and its items by path."""
    lines = [json.loads(line) for line in tool("dump", f"Z:{path}").splitlines()]
    return lines[0]["opened"], {line["path"]: line for line in lines[1:]}


class Walk:
    """A script of random calls, and the items that they are to leave: contents by path, None for a directory."""

    NAMES = ["a", "A", "a-b", "%05x", "Ж😀", ".clsid", "x y"]
    CALLS = {"write": 30, "make_directory": 15, "rewrite": 20, "remove": 8, "move": 10, "clear": 1, "flush": 4,
             "reload": 2, "save": 4}

    def __init__(self, seed, saves):
        self.random, self.items, self.script, self.packages = random.Random(seed), {}, [], {}
        self.data = self.random.randbytes(1_300_000) + bytes(self.random.choices(b"abcd", k=1_300_000))
        while len(self.packages) < saves:
            getattr(self, *self.random.choices(list(self.CALLS), self.CALLS.values()))()

    def call(self, name, path, **more):
        self.script.append(json.dumps({"call": name, "path": path, **more}))

    def chance(self, out_of):
        return self.random.randrange(out_of) == 0

    def any(self, directory):
        """A path, empty for the root or when there is none."""
        found = [path for path, data in self.items.items() if (data is None) == directory]
        return self.random.choice([""] * (directory or not found) + found)

    def new(self):
        name = self.random.choice(self.NAMES) + (str(self.random.randrange(30)) if self.chance(3) else "")
        return f"{self.any(True)}/{name}".removeprefix("/")

    def is_below(self, directory, path):
        return not directory or path.startswith(directory + "/")

    def erase_below(self, directory):
        self.items = {path: data for path, data in self.items.items() if not self.is_below(directory, path)}

    def write(self):
        path, replace = self.new(), self.chance(2)
        size = self.random.randrange(self.random.choice([1, 2, 101, 3001, 70_001]) if self.random.randrange(60) else 1_200_001)
        at = self.random.choice([0, 1_300_000]) + self.random.randrange(100_000)
        if self.items.get(path, b"") is not None:
            before = b"" if replace else self.items.get(path, b"")
            self.call("createFile", path, replace=replace, at=at, size=size, crc=zlib.crc32(before))
            self.items[path] = before + self.data[at:at + size]

    def make_directory(self):
        path, clear = self.new(), self.chance(4)
        if self.items.get(path) is None:
            self.call("createDirectory", path, clear=clear)
            self.items[path] = None
            if clear:
                self.erase_below(path)

    def rewrite(self):
        if path := self.any(False):
            data = self.items[path]
            size = {"size": self.random.randrange(len(data) + 1)} if self.chance(2) else {}
            self.call("extractFile", path, crc=zlib.crc32(data), **size)
            self.items[path] = data[:size.get("size")]

    def remove(self):
        if path := self.any(self.chance(3)):
            self.call("remove", path)
            self.erase_below(path)
            del self.items[path]

    def move(self):
        source, target = self.any(self.chance(3)), self.new()
        if source and target not in self.items and not self.is_below(source, target):
            self.call("move", source, to=target)
            self.items = {target + path[len(source):] if path == source or self.is_below(source, path) else path: data
                          for path, data in self.items.items()}

    def clear(self):
        path = self.any(True)
        self.call("clear", path)
        self.erase_below(path)

    def flush(self):
        self.call("flush", self.any(True))

    def reload(self):
        self.call("reload", "")

    def save(self):
        package = f"{len(self.packages)}.7z"
        self.packages[package] = {path: (data is None, len(data or b""), zlib.crc32(data or b""))
                                  for path, data in self.items.items()}
        self.call("save", package, items=self.packages[package], flag=self.chance(2), reopen=self.chance(3))


class Packages(unittest.TestCase):
    maxDiff = 2000

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="vexel-archive-"))
        self.addCleanup(shutil.rmtree, self.directory)

    def test_other_programs_read_every_state_of_a_random_walk(self):
        for seed in range(WALKS):
            with self.subTest(seed=seed):
                folder = self.directory / str(seed)
                folder.mkdir()
                walk = Walk(seed, 12)
                (folder / "data").write_bytes(walk.data)
                (folder / "script").write_text("\n".join(walk.script), encoding="utf-8")
                tool("play", f"Z:{folder}")
                for name, wanted in walk.packages.items():
                    if wanted or (folder / name).exists():
                        self.compare(folder / name, wanted)

    def compare(self, package, wanted):
        seven_zip("t", package)
        found = {path: [int(item["Size"] or 0), int(item.get("CRC") or "0", 16)] for path, item in listing(package).items()}
        self.assertEqual(found, {path: [size, crc] for path, (_, size, crc) in wanted.items()})
        names = subprocess.run(["bsdtar", "-tf", package], capture_output=True, check=True,
                               env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout.decode().splitlines()
        self.assertEqual(sorted(names), sorted(path + "/" * is_directory for path, (is_directory, *_) in wanted.items()))

    def test_packages_of_7zz_are_read_as_they_were_made(self):
        tree = self.directory / "tree"
        generator = random.Random(1)
        for index in range(600):
            folder = tree / f"d{index % 7}" / ("Чертёж 😀" if index % 3 else "e")
            folder.mkdir(parents=True, exist_ok=True)
            size = generator.choice([0, 1, 100, 5000, 40000])
            (folder / f"f{index}").write_bytes(generator.randbytes(size) if index % 2 else bytes(size))
        (tree / "large").write_bytes(generator.randbytes(1 << 20) * 8)
        for name, make in {
                "lzma2": ["7zz", "a", "-ms=off", "-m0=lzma2"], "lzma": ["7zz", "a", "-ms=off", "-m0=lzma", "-mx=9"],
                "copy": ["7zz", "a", "-mx=0"], "plain": ["7zz", "a", "-ms=off", "-mhc=off", "-mtc=on"],
                "fast": ["7zz", "a", "-ms=off", "-mx=1", "-mmt=on"]}.items():
            with self.subTest(name):
                package = self.directory / f"{name}.7z"
                subprocess.run([*make, package, "."], cwd=tree, capture_output=True, check=True)
                self.read_all(package, tree)

    def read_all(self, package, tree):
        status, items = dump(package)
        self.assertEqual(status, 0)
        wanted = {str(path.relative_to(tree)): path for path in tree.rglob("*")}
        self.assertEqual(items.keys(), wanted.keys())
        for name, path in wanted.items():
            item = items[name]
            self.assertEqual(item["directory"], path.is_dir(), name)
            self.assertEqual((item["modified"] - EPOCH) // 10, path.stat().st_mtime_ns // 1000, name)
            if not path.is_dir():
                content = path.read_bytes()
                self.assertEqual((item["read"], item["size"], item["real"]), (0, len(content), zlib.crc32(content)),
                                 name)

    def test_solid_items_are_refused_and_others_beside_them_read(self):
        tree = self.directory / "tree"
        tree.mkdir()
        for name in ["a.txt", "b.txt", "c.txt", "alone.bin"]:
            (tree / name).write_bytes(name.encode() * 100)
        package = self.directory / "solid.7z"
        seven_zip("a", "-ms=on", package, "a.txt", "b.txt", "c.txt", cwd=tree)
        seven_zip("a", "-ms=off", package, "alone.bin", cwd=tree)
        status, items = dump(package)
        self.assertEqual(status, 0)
        self.assertEqual({name: item["read"] for name, item in items.items()},
                         {"a.txt": 0x80030001, "b.txt": 0x80030001, "c.txt": 0x80030001, "alone.bin": 0})
        for compression, read in {"store": 0, "lzma1": 0x80030001}.items():
            package = self.directory / f"{compression}.7z"
            subprocess.run(["bsdtar", "-a", "-cf", package, "--options", f"compression={compression}", "a.txt", "b.txt"],
                           cwd=tree, check=True)
            status, items = dump(package)
            self.assertEqual((status, items.keys()), (0, {"a.txt", "b.txt"}))
            for name, item in items.items():
                real = 0 if read else zlib.crc32(name.encode() * 100)
                self.assertEqual((item["read"], item["size"], item["real"]), (read, 500, real), (compression, name))

    # What 7zz lists opens, and what it faults is refused: headers with changed bytes and mended checksums.
    def test_headers_that_7zz_lists_open_and_no_others(self):
        tree = self.directory / "tree"
        (tree / "d").mkdir(parents=True)
        for name in ["a", "b%", "d/c", "d/empty"]:
            (tree / name).write_bytes(name.encode() * 50 * ("empty" not in name))
        whole = []
        for options in [["-ms=off", "-m0=lzma2:d=1g"], ["-ms=on", "-m0=lzma", "-mtc=on"], ["-m0=ppmd"], ["-mf=bcj", "-ms=off"]]:
            whole.append(self.directory / f"{len(whole)}.7z")
            seven_zip("a", "-mhc=off", *options, whole[-1], ".", cwd=tree)
            self.assertEqual(self.opened(whole[-1:]), [0])
        generator = random.Random(7)
        changed = []
        for number in range(MUTANTS):
            data = bytearray(generator.choice(whole).read_bytes())
            header = 32 + struct.unpack_from("<Q", data, 12)[0]
            for _ in range(generator.choice([1, 1, 2])):
                place = generator.randrange(header, len(data))
                data[place] = generator.choice([data[place] ^ 1 << generator.randrange(8), 0, 1, 0xFF, generator.randrange(256)])
            struct.pack_into("<I", data, 28, zlib.crc32(data[header:]))
            struct.pack_into("<I", data, 8, zlib.crc32(data[12:32]))
            changed.append(self.directory / f"changed {number}.7z")
            changed[-1].write_bytes(data)
        lists = [subprocess.run(["7zz", "l", path], capture_output=True, timeout=60).returncode == 0 for path in changed]
        self.assertTrue(0 < sum(lists) < len(lists))
        for path, is_listed, status in zip(changed, lists, self.opened(changed)):
            self.assertEqual(status == 0, is_listed, (path.name, hex(status), path.read_bytes().hex()))

    def opened(self, paths):
        batches = [paths[i:i + 200] for i in range(0, len(paths), 200)]  # a command line has its limits
        return [int(line) for batch in batches for line in tool("open", *(f"Z:{path}" for path in batch)).splitlines()]

    def test_twenty_thousand_items(self):
        tree = self.directory / "tree"
        tree.mkdir()
        for index in range(20000):
            (tree / f"{index:05}").write_bytes(b"%d" % index)
        package = self.directory / "many.7z"
        seven_zip("a", "-ms=off", "-mx=1", package, ".", cwd=tree)
        _, items = dump(package)
        self.assertEqual(len(items), 20000)
        self.assertTrue(all(item["real"] == zlib.crc32(b"%d" % int(name)) for name, item in items.items()))

    def test_a_killed_process_leaves_one_of_the_two_states(self):
        package = self.directory / "killed.7z"
        states = set()
        for kill in range(KILLS):
            process = subprocess.Popen(command("loop", f"Z:{package}"), stdout=subprocess.PIPE)
            process.stdout.readline()  # from here on there is a package
            time.sleep(random.Random(kill).random() * 0.2)
            process.kill()
            process.stdout.close()
            process.wait()
            seven_zip("t", package)
            _, items = dump(package)
            self.assertEqual(len(items), 20)
            state = {letter for letter in b"ab"
                     if all(items[f"item{i}"]["real"] == zlib.crc32(bytes([letter]) * 2000 * (i + 1)) for i in range(20))}
            self.assertEqual(len(state), 1)
            states |= state
        print("states seen:", sorted(map(chr, states)))


if __name__ == "__main__":
    unittest.main()
