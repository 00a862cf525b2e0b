"""Damaged documents, of which everything that lies wholly outside the damage comes back byte for byte. What lies where
is read from the sound files: with olefile in compound files, with 7zz in packages."""

import concurrent.futures
import json
import os
import random
import struct
import unittest

import olefile

from vexel_cli import DATA, CommandTest, encode, files_below, listing, nodes, seven_zip, vexel

OPTIONS = os.environ.get("VEXEL_SALVAGE_OPTIONS", "").split()
SEED = int(os.environ.get("VEXEL_SEED", "20"))
WAYS = int(os.environ.get("VEXEL_WAYS", "4"))
COMPOUND = ["namesdemo.xls", "foreign-tree.cfb", "large-sectors.cfb"]
PACKAGES = ["plain-lzma2.7z", "plain-lzma-packed-header.7z", "copy.7z", "solid.7z"]


def unpack(package, directory):
    """The contents of its files, by path."""
    seven_zip("x", "-y", f"-o{directory}", package)
    return {name: contents for name, contents in files_below(directory).items() if contents is not None}


class Needs:
    """Which bytes of a file the streams lie in, and which else have to be sound for them to be found."""

    def __init__(self):
        self.streams = {}  # contents, and ranges of bytes, by name

    def whole(self, damage):
        return {name: contents for name, (contents, ranges) in self.streams.items()
                if not any(begin < end and low < end and begin < high for begin, end in ranges for low, high in damage)}


def compound_needs(path):
    """A stream needs its sectors, its entry, and the table's sectors with its chain; a small one also the root's stream
    and the table of small ones."""
    needs = Needs()
    with olefile.OleFileIO(str(path)) as ole:
        size = ole.sector_size
        header = path.read_bytes()[:512]

        def at(sector, offset=0, length=size):
            return ((sector + 1) * size + offset, (sector + 1) * size + offset + length)

        def chain(start):
            while start < 0xFFFFFFFB:
                yield start
                start = ole.fat[start]

        fat = struct.unpack("<109I", header[76:])

        def with_table(sectors):
            return [at(sector) for sector in sectors] + [at(fat[s * 4 // size], s * 4 % size, 4) for s in sectors]

        directory = list(chain(ole.first_dir_sector))
        mini_table = list(chain(ole.first_mini_fat_sector))
        root = with_table(list(chain(ole.root.isectStart)))
        holder = {s: r for s, r in zip(range(10 ** 6), chain(ole.root.isectStart))}

        def entry(number):
            return at(directory[number * 128 // size], number * 128 % size, 128)

        frame = [entry(0), *with_table(directory)[len(directory):], *with_table(mini_table), *root[len(root) // 2:]]
        minis = struct.unpack(f"<{len(mini_table) * size // 4}I",
                              b"".join(path.read_bytes()[slice(*at(s))] for s in mini_table))
        for names, node in nodes(path).items():
            if node.entry_type != olefile.STGTY_STREAM:
                continue
            ranges, start = [entry(node.sid)], node.isectStart
            if node.size >= 4096:
                ranges += with_table(list(chain(start)))
            elif node.size:
                ranges += frame
                while start < 0xFFFFFFFB:
                    ranges.append(at(holder[start * 64 // size], start * 64 % size, 64))
                    start = minis[start]
            needs.streams["/".join(map(encode, names))] = ole.openstream(list(names)).read(), ranges
        needs.table = [at(s) for s in fat if s < 0xFFFFFFFB] + [entry(0), *with_table(directory)[len(directory):]]
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

    def whole(self, damage):
        if all(high <= self.header for _, high in damage):
            return super().whole(damage)
        return {name: contents for name, (contents, ranges) in self.alone.items()
                if not any(begin < high and low < end for begin, end in ranges for low, high in damage)}


def cuts(data, chance):
    """Ways to cut a file: the data that stay, and the damage."""
    for _ in range(WAYS):
        end = chance.randrange(1, len(data))
        yield data[:end], [(end, len(data))]


def wounds(data, chance):
    """Ways to damage a file in twenty places."""
    for _ in range(WAYS):
        changed, damage = bytearray(data), []
        for _ in range(20):
            begin = chance.randrange(len(data))
            end = min(len(data), begin + chance.choice([1, 4, 60, 600]))
            changed[begin:end] = chance.choice([bytes(end - begin), chance.randbytes(end - begin)])
            damage.append((begin, end))
        yield bytes(changed), damage


def both(data, chance):
    """Cut, and damaged in twenty places before."""
    for end, at in zip(cuts(data, chance), wounds(data, chance)):
        yield at[0][:len(end[0])], end[1] + at[1]


class Salvage(CommandTest):
    def rescue(self, name, data):
        """What comes back of a file, by path, and what the command says of it."""
        source, target = self.directory / name, self.directory / f"{name}.rescued"
        source.write_bytes(data)
        result = vexel("salvage", "--json", *OPTIONS, source, target)
        self.assertIn(result.returncode, (0, 1), result.stderr)
        self.assertEqual(source.read_bytes(), data)
        if not target.exists():
            self.assertIn(b"nothing can be brought back", result.stderr)
            return {}, None
        return unpack(target, self.directory / f"{name}.files"), json.loads(result.stdout)

    def check(self, sample, needs, damaged):
        """Whole streams come back under their name, or where their way is lost, under another."""
        data, chance = sample.read_bytes(), random.Random(f"{SEED} {sample.name} {damaged.__name__}")
        ways = list(damaged(data, chance))
        with concurrent.futures.ThreadPoolExecutor(2) as workers:
            results = list(workers.map(lambda way: self.rescue(f"{sample.name}.{damaged.__name__}{way[0]}", way[1][0]),
                                       enumerate(ways)))
        found = expected = back = 0
        for number, ((_, damage), (rescued, report)) in enumerate(zip(ways, results)):
            contents = list(rescued.values())
            lost = []
            for name, wanted in needs.whole(damage).items():
                expected += 1
                if wanted in contents:
                    found += 1
                else:
                    lost.append(name)
            back += sum(contents in rescued.values() for contents, _ in needs.streams.values())
            self.assertEqual(lost, [], (sample.name, damaged.__name__, number, report))
        total = len(ways) * len(needs.streams)
        print(f"{sample.name:28} {damaged.__name__:7} {expected / total:5.0%} whole, {back / total:5.0%} back")

    def test_compound_files(self):
        for name in COMPOUND:
            for damaged in cuts, wounds, both:
                with self.subTest((name, damaged.__name__)):
                    self.check(DATA / name, compound_needs(DATA / name), damaged)

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


if __name__ == "__main__":
    unittest.main()
