"""Packages against 7zz and bsdtar: what we write they read, and what they make of headers we do."""

import os
import random
import struct
import subprocess
import time
import unittest
import zlib

from vexel_cli import BUILD, ROOT, CommandTest, bsdtar_names, listing, run, seven_zip

SCRIPTS = int(os.environ.get("VEXEL_SCRIPTS", 10))
MUTANTS = int(os.environ.get("VEXEL_MUTANTS", 300))


def command(name, path, *arguments):
    return [ROOT / "scripts" / "wine", BUILD / "bin" / "archive_tool.exe", name, f"Z:{path}", *map(str, arguments)]


def tool(*arguments):
    result = run(command(*arguments))
    if result.returncode:
        raise AssertionError(f"{arguments}: {result.stderr.decode()}")
    return result.stdout.decode()


class Packages(CommandTest):
    # The scripts compare the contents with those they read, and 7zz their checksums.
    def test_other_programs_read_what_random_scripts_save(self):
        run([ROOT / "scripts" / "wine", BUILD / "bin" / "handle_model_test.exe", "--gtest_filter=*Package"], check=True,
            env={**os.environ, "VEXEL_TEST_SEEDS": f"0-{SCRIPTS}", "VEXEL_TEST_STATES": f"Z:{self.directory}"})
        states = list(self.directory.glob("*.txt"))
        self.assertGreater(len(states), SCRIPTS)
        for state in states:
            lines = [line.split(" ", 1) for line in state.read_text(encoding="utf-8").splitlines()]
            package = state.with_suffix(".7z")
            seven_zip("t", package)
            self.assertEqual({path: item["Size"] or "0" for path, item in listing(package).items()},
                             {path: size.replace("-", "0") for size, path in lines})
            self.assertEqual(sorted(bsdtar_names(package)), sorted(path + "/" * (size == "-") for size, path in lines))

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
        generator = random.Random(7)
        changed = self.directory / "changed"
        changed.mkdir()
        for number in range(MUTANTS):
            data = bytearray(generator.choice(whole).read_bytes())
            header = 32 + struct.unpack_from("<Q", data, 12)[0]
            for _ in range(generator.choice([1, 1, 2])):
                place = generator.randrange(header, len(data))
                data[place] = generator.choice([data[place] ^ 1 << generator.randrange(8), 0, 1, 0xFF, generator.randrange(256)])
            struct.pack_into("<I", data, 28, zlib.crc32(data[header:]))
            struct.pack_into("<I", data, 8, zlib.crc32(data[12:32]))
            (changed / str(number)).write_bytes(data)
        opened = dict(line.split() for line in tool("open", changed).splitlines())
        listed = {path.name: subprocess.run(["7zz", "l", path], capture_output=True, timeout=60).returncode == 0
                  for path in changed.iterdir()}
        self.assertEqual(set(listed.values()), {True, False})
        self.assertEqual({name: status == "0" for name, status in opened.items()}, listed)

    def test_a_killed_process_leaves_one_of_the_two_states(self):
        package = self.directory / "killed.7z"
        states = {letter: {f"item{i}": f"{zlib.crc32(letter * 2000 * (i + 1)):08X}" for i in range(20)} for letter in (b"a", b"b")}
        for kill in range(12):
            process = subprocess.Popen(command("loop", package), stdout=subprocess.PIPE)
            process.stdout.readline()  # from here on there is a package
            time.sleep(random.Random(kill).random() * 0.2)
            process.kill()
            process.stdout.close()
            process.wait()
            seven_zip("t", package)
            self.assertIn({path: item["CRC"] for path, item in listing(package).items()}, states.values())


if __name__ == "__main__":
    unittest.main()
