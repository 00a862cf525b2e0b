"""Damaged documents, of which everything that lies wholly outside the damage comes back byte for byte. What lies where
is read from the sound files: with olefile in compound files, with 7zz in packages."""

import concurrent.futures
import json
import os
import random
import struct
import subprocess
import unittest
import unittest.mock
import zlib

import olefile

from vexel_cli import DATA, CommandTest, encode, files_below, listing, nodes, seven_zip, vexel

WAYS = int(os.environ.get("VEXEL_WAYS", "4"))
COMPOUND = ["namesdemo.xls", "foreign-tree.cfb", "large-sectors.cfb"]
PACKAGES = ["plain-lzma2.7z", "plain-lzma-packed-header.7z", "copy.7z", "solid.7z"]

# Takes the place of what reads files for Wine, and cannot read one sector of a file. Each attempt is noted.
BAD_DISK = rb"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
ssize_t pread64(int file, void *bytes, size_t size, off64_t at) {
  char link[64], name[4096] = "";
  const long bad = atol(getenv("BAD_AT"));
  snprintf(link, sizeof link, "/proc/self/fd/%d", file);
  if (readlink(link, name, sizeof name - 1) > 0 && strstr(name, "bad.7z") && at < bad + 512 && at + (long)size > bad) {
    FILE *attempts = fopen(getenv("BAD_ATTEMPTS"), "a");
    fputc('x', attempts);
    fclose(attempts);
    errno = EIO;
    return -1;
  }
  return ((ssize_t(*)(int, void *, size_t, off64_t))dlsym(RTLD_NEXT, "pread64"))(file, bytes, size, at);
}
ssize_t pread(int file, void *bytes, size_t size, off_t at) { return pread64(file, bytes, size, at); }
"""


def unpack(package, directory):
    seven_zip("x", "-y", f"-o{directory}", package)
    return {name: contents for name, contents in files_below(directory).items() if contents is not None}


class Needs:
    """Which bytes of a file the streams lie in, and which else have to be sound for them to be found."""

    def __init__(self):
        self.streams = {}  # contents, and ranges of bytes, by name

    def checks(self, _):
        return False  # whether contents that were overwritten show as that

    def whole(self, damage, streams=None):
        """What lies wholly outside the damage."""
        return {name: contents for name, (contents, ranges) in (self.streams if streams is None else streams).items()
                if not any(low < end and begin < high for begin, end in ranges for low, high in damage)}


def compound_needs(path):
    """A stream needs its sectors, its entry, and the table's numbers of its chain; a small one also the table of small
    ones, the root's entry, and the numbers of all chains that these need."""
    needs, data = Needs(), path.read_bytes()
    with olefile.OleFileIO(str(path)) as ole:
        size = ole.sector_size
        fat = struct.unpack("<109I", data[76:512])

        def at(sector, offset=0, length=size):
            return ((sector + 1) * size + offset, (sector + 1) * size + offset + length)

        def chain(start, table=ole.fat):
            while start < 0xFFFFFFFB:
                yield start
                start = table[start]

        def links(sectors):
            return [at(fat[s * 4 // size], s * 4 % size, 4) for s in sectors]

        directory, mini_table, holder = (list(chain(start)) for start in (
            ole.first_dir_sector, ole.first_mini_fat_sector, ole.root.isectStart))
        minis = struct.unpack(f"<{len(mini_table) * size // 4}I", b"".join(data[slice(*at(s))] for s in mini_table))

        def entry(number):
            return at(directory[number * 128 // size], number * 128 % size, 128)

        frame = [entry(0), *links(directory + holder + mini_table), *map(at, mini_table)]
        for names, node in nodes(path).items():
            if node.entry_type != olefile.STGTY_STREAM:
                continue
            if node.size >= 4096:
                sectors = list(chain(node.isectStart))
                ranges = [*map(at, sectors), *links(sectors)]
            else:
                small = chain(node.isectStart, minis) if node.size else []
                ranges = [*frame, *(at(holder[s * 64 // size], s * 64 % size, 64) for s in small)]
            contents = ole.openstream(list(names)).read()
            needs.streams["/".join(map(encode, names))] = contents, [entry(node.sid), *ranges]
    return needs


class PackageNeeds(Needs):
    """Without its header, of a package only files with an LZMA2 stream of their own come back, and behind damage only if
    the end of the stream before is there."""

    def __init__(self, path, unpacked):
        super().__init__()
        items, blocks = listing(path), {}
        for name, item in items.items():
            if item.get("Block"):
                blocks.setdefault(int(item["Block"]), []).append(name)
        contents, begin = unpack(path, unpacked), 32
        self.alone = {}
        for _, names in sorted(blocks.items()):
            end = begin + sum(int(items[name]["Packed Size"] or 0) for name in names)
            for name in names:
                self.streams[name] = contents[name], [(begin, end)]
                if len(names) == 1 and items[name]["Method"].startswith("LZMA2"):
                    self.alone[name] = contents[name], [(begin - 1, end)]
            begin = end
        self.header = begin

    def checks(self, damage):
        return all(high <= self.header for _, high in damage)

    def whole(self, damage):
        return super().whole(damage, self.streams if self.checks(damage) else self.alone)


def cuts(data, chance):
    """Ways to cut a file: the data that stay, and the damage."""
    for _ in range(WAYS):
        end = chance.randrange(1, len(data))
        yield data[:end], [(end, len(data))]


def wounds(data, chance):
    """Ways to damage a file in twenty places."""
    for _ in range(WAYS):
        changed, damage = bytearray(data), []
        for begin in chance.choices(range(len(data)), k=20):
            end = min(len(data), begin + chance.choice([1, 4, 60, 600]))
            changed[begin:end] = chance.choice([bytes(end - begin), chance.randbytes(end - begin)])
            damage.append((begin, end))
        yield bytes(changed), damage


def both(data, chance):
    for end, at in zip(cuts(data, chance), wounds(data, chance)):
        yield at[0][:len(end[0])], end[1] + at[1]


class Salvage(CommandTest):
    def rescue(self, name, data, *options):
        source, target = self.directory / name, self.directory / f"{name}.rescued"
        source.write_bytes(data)
        result = vexel("salvage", "--json", *options, source, target)
        self.assertIn(result.returncode, (0, 1), result.stderr)
        self.assertEqual(source.read_bytes(), data)
        if not target.exists():
            self.assertIn(b"nothing can be brought back", result.stderr, result)
            return {}, None
        return unpack(target, self.directory / f"{name}.files"), json.loads(result.stdout)

    def check(self, sample, needs, damaged):
        """Whole streams come back under their name or, where their way is lost, under another; and under its name comes
        nothing else."""
        ways = list(damaged(sample.read_bytes(), random.Random(f"20 {sample.name} {damaged.__name__}")))
        with concurrent.futures.ThreadPoolExecutor(2) as workers:
            results = list(workers.map(lambda way: self.rescue(f"{sample.name}.{damaged.__name__}{way[0]}", way[1][0]),
                                       enumerate(ways)))
        for number, ((_, damage), (rescued, report)) in enumerate(zip(ways, results)):
            whole, contents = needs.whole(damage), set(rescued.values())
            lost = [name for name, wanted in whole.items() if wanted not in contents]
            wrong = [name for name, (wanted, _) in needs.streams.items() if rescued.get(name, wanted) != wanted]
            self.assertEqual(lost, [], (sample.name, damaged.__name__, number, report))
            if damaged == cuts or needs.checks(damage):
                self.assertEqual(wrong, [], (sample.name, damaged.__name__, number, report))

    def test_compound_files(self):
        for name in COMPOUND:
            for damaged in cuts, wounds, both:
                with self.subTest((name, damaged.__name__)):
                    self.check(DATA / name, compound_needs(DATA / name), damaged)

    def test_a_compound_file_without_its_header(self):
        for name in COMPOUND:
            rescued, _ = self.rescue(name, bytes(512) + (DATA / name).read_bytes()[512:])
            wanted = {name: contents for name, (contents, _) in compound_needs(DATA / name).streams.items()}
            self.assertEqual({name: contents for name, contents in rescued.items() if name in wanted}, wanted)

    def test_sectors_of_two_streams_go_to_the_one_whose_chain_jumps_less(self):
        """A stream's fourth sector leads to the fifth of another one, which is as long."""
        data, streams = bytearray((DATA / "namesdemo.xls").read_bytes()), compound_needs(DATA / "namesdemo.xls").streams
        struct.pack_into("<I", data, 42 * 512 + 28 * 4, 37)
        cut, whole = "%05SummaryInformation", "%05DocumentSummaryInformation"
        for options, wanted in ([], None), (["--partial"], streams[cut][0][:2048]):
            rescued, report = self.rescue(f"crossed{len(options)}", data, *options)
            self.assertEqual((rescued[whole], rescued.get(cut)), (streams[whole][0], wanted))
            self.assertEqual([(lost["path"], lost["there"]) for lost in report["lost"]], [(cut, 2048)])

    def test_packages(self):
        tree = self.directory / "tree"
        (tree / "d").mkdir(parents=True)
        for number, size in enumerate([100, 3000, 70_000, 200_000, 5_000_000, 9, 100_000]):
            stored = random.Random(number).randbytes(size) if number % 2 else b"%d line\n" % number * (size // 7)
            (tree / ("d" if number > 3 else "") / f"file {number}").write_bytes(stored)
        self.succeed("pack", tree, self.directory / "packed.7z")
        for path in [self.directory / "packed.7z", *(DATA / name for name in PACKAGES)]:
            for damaged in cuts, wounds, both:
                with self.subTest((path.name, damaged.__name__)):
                    self.check(path, PackageNeeds(path, self.directory / f"{path.name}.{damaged.__name__}"), damaged)

    def test_a_large_header_with_a_wrong_checksum(self):
        """It is longer than what is searched at the end of the file."""
        padding = b"\x63\xF0" + struct.pack("<I", 0x1100000) + bytes(0x1100000)  # a property that nobody knows
        header = (b"\1\5\1" b"\x0E\1\x80" b"\x0F\1\x80" + padding + b"\x11\x05\0" + "f\0".encode("utf-16-le") + b"\0\0")
        place = struct.pack("<QQI", 0, len(header), 0)
        start = b"7z\xBC\xAF\x27\x1C\0\4" + struct.pack("<I", zlib.crc32(place)) + place
        rescued, report = self.rescue("large", start + header)
        self.assertEqual((rescued, report["lost"]), ({"f": b""}, []))

    def test_sectors_that_cannot_be_read(self):
        """The disk is one that fails to read them: what of the file comes before them comes back to the byte, as does
        all of the next. The disk takes its time over each attempt."""
        library = self.directory / "bad_disk.so"
        subprocess.run(["cc", "-shared", "-fPIC", "-o", library, "-xc", "-"], input=BAD_DISK, check=True)
        contents = random.Random(1).randbytes(300_000)
        for name in "fg":
            (self.directory / name).write_bytes(contents)
        path, attempts = self.directory / "bad.7z", self.directory / "attempts"
        seven_zip("a", "-m0=copy", path, self.directory / "f", self.directory / "g")
        for bad in [512, 4096, 100_352, 299_520]:
            with self.subTest(bad):
                attempts.write_bytes(b"")
                with unittest.mock.patch.dict(os.environ, LD_PRELOAD=str(library), BAD_AT=str(bad),
                                              BAD_ATTEMPTS=str(attempts)):
                    result = vexel("salvage", "--partial", "--force", path, self.directory / "out.7z")
                self.assertEqual(unpack(self.directory / "out.7z", self.directory / str(bad)),
                                 {"f": contents[:bad - 32], "g": contents}, result.stderr)
                self.assertLessEqual(len(attempts.read_bytes()), 10)

    def test_a_package_of_more_than_4_gib(self):
        """Before its contents and its header there is a hole."""
        def number(value):
            return b"\xFF" + struct.pack("<Q", value)

        header = (b"\1\4" b"\6" + number(2 ** 32) + b"\1\x09" + number(6) + b"\0" b"\7\x0B\1\0\1\1\0\x0C" + number(6)
                  + b"\x0A\1" + struct.pack("<I", zlib.crc32(b"behind")) + b"\0\0" b"\5\1" b"\x11\5\0f\0\0\0" b"\0\0")
        place = struct.pack("<QQI", 2 ** 32 + 6, len(header), 0)
        with open(self.directory / "large", "wb") as file:
            file.write(b"7z\xBC\xAF\x27\x1C\0\4" + struct.pack("<I", zlib.crc32(place)) + place)
            file.seek(2 ** 32, os.SEEK_CUR)
            file.write(b"behind" + header)
        result = vexel("salvage", self.directory / "large", self.directory / "out.7z")
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertEqual(unpack(self.directory / "out.7z", self.directory / "files"), {"f": b"behind"})


if __name__ == "__main__":
    unittest.main()
