"""What is too large for 32 bits, and very many: documents that other programs made and can check. Takes 30 GB of disk."""

import json
import struct
import subprocess
import unittest

from vexel_cli import BUILD, ROOT, CommandTest, run

GIB = 1 << 30
STEP = 1 << 20


def pieces(size):
    """Contents of that size, every MiB of which is unlike the others."""
    text = bytes(range(256)) * (STEP // 256)
    for at in range(0, size, STEP):
        yield (struct.pack("<Q", at) + text[8:])[:size - at]


def wine(*arguments, **options):
    return [ROOT / "scripts" / "wine", BUILD / "bin" / "vexel.exe", *map(str, arguments)]


def windows(path):
    return f"Z:{path}"


class Sizes(CommandTest):
    def vexel(self, *arguments):
        result = run(wine(*arguments), timeout=3000)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout

    def check(self, package):
        subprocess.run(["7zz", "t", "-bso0", "-bsp0", package], check=True, timeout=3000)

    def assert_holds(self, command, size):
        """A command's output, compared as it comes."""
        with subprocess.Popen(command, stdout=subprocess.PIPE) as program:
            for number, piece in enumerate(pieces(size)):
                self.assertTrue(program.stdout.read(len(piece)) == piece, f"piece {number} differs")
            self.assertEqual(program.stdout.read(1), b"")
        self.assertEqual(program.returncode, 0)

    def write(self, name, size):
        path = self.directory / name
        with path.open("wb") as file:
            file.writelines(pieces(size))
        return path

    # Two items above 4 GiB, one of them stored as it is, so that the archive is above 8 GiB, too.
    def test_items_above_4_gib(self):
        folder = self.directory / "folder"
        folder.mkdir()
        sizes = {"four": 4 * GIB + 1, "nine": 9 * GIB}
        stored = self.directory / "stored.7z"
        subprocess.run(["7zz", "a", "-mx0", "-bso0", "-bsp0", stored, self.write("folder/nine", sizes["nine"])], check=True)
        self.vexel("put", windows(stored), "small", windows(ROOT / "README.md"))
        self.check(stored)
        self.assertGreater(stored.stat().st_size, 8 * GIB)
        self.assert_holds(wine("cat", windows(stored), "nine"), sizes["nine"])
        stored.unlink()

        self.write("folder/four", sizes["four"])
        package = self.directory / "packed.7z"
        self.vexel("pack", windows(folder), windows(package))
        self.check(package)
        self.vexel("put", windows(package), "small", windows(ROOT / "README.md"))
        self.vexel("verify", windows(package))
        for name, size in sizes.items():
            self.assert_holds(["7zz", "e", "-so", package, name], size)
        self.assert_holds(wine("cat", windows(package), "four"), sizes["four"])

    # The first form ends at 2 GiB, the second, with larger sectors, has sizes of 64 bits.
    def test_compound_files_near_their_limits(self):
        for shift, size in [(9, 2 * GIB - 64 * STEP), (12, 4 * GIB + 4096)]:
            with self.subTest(shift=shift):
                source = self.directory / f"large{shift}.cfb"
                write_compound_file(source, shift, size)
                self.assertEqual(json.loads(self.vexel("list", "--json", windows(source)))[0]["size"], size)
                package = self.directory / f"large{shift}.7z"
                self.vexel("convert", windows(source), windows(package))
                self.assert_holds(["7zz", "e", "-so", package, "Stream"], size)
                source.unlink()

    def test_a_million_items(self):
        for number in range(1000000):
            if number % 1000 == 0:
                folder = self.directory / "tree" / str(number // 1000)
                folder.mkdir(parents=True)
            (folder / str(number)).write_bytes(b"%d" % number)
        package = self.directory / "many.7z"
        subprocess.run(["7zz", "a", "-mx1", "-ms=off", "-bso0", "-bsp0", package, "."], cwd=self.directory / "tree", check=True)
        self.vexel("put", windows(package), "small", windows(ROOT / "README.md"))
        self.check(package)
        self.assertEqual(self.vexel("cat", windows(package), "777/777777"), b"777777")
        self.assertEqual(len(json.loads(self.vexel("list", "--json", windows(package)))), 1001001)
        self.vexel("verify", windows(package))


def write_compound_file(path, shift, size):
    """A root with one stream: its contents first, then the tables."""
    sector = 1 << shift
    count = -(-size // sector)
    numbers = sector // 4
    tables, fat_sectors = 0, 1
    while True:  # a table describes itself, too
        difat = max(0, -(-(fat_sectors - 109) // (numbers - 1)))
        tables = fat_sectors + difat + 1
        if fat_sectors * numbers >= count + tables:
            break
        fat_sectors += 1
    first_fat, first_difat, directory = count, count + fat_sectors, count + fat_sectors + difat
    none, end = 0xFFFFFFFF, 0xFFFFFFFE
    fats = [first_fat + i for i in range(fat_sectors)]
    header = struct.pack("<8s16xHHHHH6xIIIIIIIII", bytes.fromhex("d0cf11e0a1b11ae1"), 0x3E, 3 if shift == 9 else 4, 0xFFFE,
                         shift, 6, 0 if shift == 9 else 1, fat_sectors, directory, 0, 4096, end, 0,
                         first_difat if difat else end, difat)
    header += struct.pack("<109I", *(fats + [none] * 109)[:109])

    def element(name, kind, child, start, length):
        text = name.encode("utf-16-le") + b"\0\0"
        return struct.pack("<64sHBBIII36xIQ", text, len(text), kind, 1, none, none, child, start, length)

    elements = element("Root Entry", 5, 1, end, 0) + element("Stream", 2, none, 0, size)
    while len(elements) < sector:
        elements += struct.pack("<68xIII48x", none, none, none)
    with path.open("wb") as file:
        file.write(header.ljust(sector, b"\0"))
        file.writelines(pieces(size))
        file.write(bytes(count * sector - size))
        chain = [*range(1, count), end, *[0xFFFFFFFD] * fat_sectors, *[0xFFFFFFFC] * difat, end]
        chain += [none] * (fat_sectors * numbers - len(chain))
        file.write(struct.pack(f"<{len(chain)}I", *chain))
        for number in range(difat):
            part = (fats[109:] + [none] * numbers * difat)[number * (numbers - 1):(number + 1) * (numbers - 1)]
            file.write(struct.pack(f"<{numbers}I", *part, first_difat + number + 1 if number + 1 < difat else end))
        file.write(elements)


if __name__ == "__main__":
    unittest.main()
