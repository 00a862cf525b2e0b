"""verify with many files, against what 7zz says of the same ones; and what a terminal gets to see."""

import contextlib
import json
import os
import pathlib
import pty
import re
import select
import subprocess
import time
import unittest

from vexel_cli import BUILD, DATA, ROOT, CommandTest, seven_zip, vexel


class Checking(CommandTest):
    def damaged(self, name, *places):
        data = bytearray((DATA / name).read_bytes())
        for place in places:
            data[place] ^= 0x55
        path = self.directory / f"damaged {name}"
        path.write_bytes(data)
        return path

    def test_many_files_in_order(self):
        files = [*(DATA / name for name in ("copy.7z", "plain-lzma2.7z", "plain-lzma-packed-header.7z", "empty.7z")),
                 self.damaged("copy.7z", 32 + 5000, 32 + 11_000), self.damaged("plain-lzma2.7z", 100_000)] * 3
        told = vexel("verify", "--json", *files)
        results = json.loads(told.stdout)
        self.assertEqual([result["file"].rpartition("\\")[2] for result in results], [path.name for path in files])
        for path, result in zip(files, results):
            peer = subprocess.run(["7zz", "t", path], capture_output=True)
            self.assertEqual(result["status"] == "sound", peer.returncode == 0, path)
            self.assertEqual(len(result["faults"]), len(re.findall(rb"(?m)^ERROR: ", peer.stderr)), path)
            self.assertEqual(result["message"] is None, peer.returncode == 0)
        self.assertEqual((told.returncode, told.stderr), (1, b""))
        for names, status in [(["copy.7z", "empty.7z"], 0), (["copy.7z", "encrypted-data.7z"], 3),
                              (["encrypted-data.7z", "missing.7z", "copy.7z"], 1)]:
            result = vexel("verify", *(DATA / name for name in names))
            self.assertEqual(result.returncode, status, result)
            self.assertEqual(re.findall(rb"(?m)^(sound|not readable|failed|damaged) .*\\(.*)", result.stdout),
                             [({"copy": b"sound", "empt": b"sound", "encr": b"not readable", "miss": b"failed"}[name[:4]],
                               name.encode()) for name in names])

    def test_patterns_of_files(self):
        for name in "b.7z", "A.7z", "c.7zip", "d.doc":
            (self.directory / name).write_bytes((DATA / "empty.7z").read_bytes())
        (self.directory / "folder.7z").mkdir()
        for pattern, wanted in [("*.7z", ["A.7z", "b.7z"]), ("?.7z", ["A.7z", "b.7z"]), ("B*", ["b.7z"]), ("*7Z*", ["A.7z", "b.7z", "c.7zip"]),
                                ("*.*", ["A.7z", "b.7z", "c.7zip", "d.doc"])]:
            told = json.loads(self.succeed("verify", "--json", self.directory / pattern))
            self.assertEqual([(result["file"].rpartition("\\")[2], result["status"]) for result in told],
                             [(name, "sound") for name in wanted], pattern)
        self.fail_with(1, r"no file matches .*\*\.xls", "verify", self.directory / "b.7z", self.directory / "*.xls")

    def test_progress_tells_how_much_there_is(self):
        (self.directory / "zeros").mkdir()
        for number in range(8):
            with (self.directory / "zeros" / str(number)).open("wb") as file:
                file.truncate(96 << 20)
        package, other = self.directory / "zeros.7z", self.directory / "other.7z"
        seven_zip("a", "-ms=off", "-mx1", package, ".", cwd=self.directory / "zeros")
        os.link(package, other)
        for command in ["verify", package, other], ["cat", package, "**", "-o", self.directory / "out"]:
            with self.subTest(command[0]):
                self.assertRegex(self.on_terminal(*command), rb": \d+ % of [\d.]+ [MG]B, \d[^\r]* s left")

    def test_memory_is_that_of_a_few_files(self):
        (self.directory / "large").write_bytes(os.urandom(1 << 20) * 24)
        first = self.directory / "0.7z"
        seven_zip("a", first, "large", "-mx=1", cwd=self.directory)
        files = [first, *(self.directory / f"{number}.7z" for number in range(1, 24))]
        for path in files[1:]:
            os.link(first, path)
        program = self.start("verify", *files, stdout=subprocess.DEVNULL)
        peak = 0
        while program.poll() is None:
            for status in pathlib.Path("/proc").glob("[0-9]*/status"):
                with contextlib.suppress(OSError, AttributeError, IndexError):
                    if re.search(rb"vexel\.exe\0verify\0.*\b23\.7z", (status.parent / "cmdline").read_bytes(), re.DOTALL):
                        peak = max(peak, int(re.search(r"VmRSS:\s+(\d+)", status.read_text())[1]))
            time.sleep(0.02)
        self.assertEqual(program.returncode, 0)
        self.assertTrue(24 << 10 < peak < 300 << 10, f"{peak} KiB; all files have 576 MiB")

    def on_terminal(self, *arguments, **environment):
        """What a command writes on a terminal."""
        terminal, program_side = pty.openpty()
        environment = {**os.environ, "VEXEL_BUILD_DIR": str(BUILD), "TERM": "xterm", **environment}
        with subprocess.Popen([ROOT / "scripts" / "vexel", *arguments], stdin=program_side, stdout=program_side,
                              stderr=program_side, env=environment) as program:
            os.close(program_side)
            shown = b""
            while select.select([terminal], [], [], 60)[0]:
                try:
                    shown += os.read(terminal, 65536)
                except OSError:  # nobody has the other side any more
                    os.close(terminal)
                    return shown
            program.kill()
        self.fail(f"{arguments} does not end: {shown}")

    def test_colours_are_for_terminals(self):
        path, other = self.sample("foreign-tree.cfb"), self.directory / "other.cfb"
        other.write_bytes(path.read_bytes())
        self.succeed("rm", other, "Mini")
        coloured = rb"\x1b\[[0-9;]*[39][1-7]m"
        for command in ["tree", path], ["list", path, "Sub/*"], ["diff", path, other], ["verify", path, other]:
            with self.subTest(command[0]):
                self.assertRegex(self.on_terminal(*command), coloured)
                self.assertNotRegex(self.on_terminal(*command, NO_COLOR="1"), coloured)
                self.assertNotIn(b"\x1b", vexel(*command).stdout)

    def test_sizes_for_people_and_exact_ones(self):
        path = self.sample("foreign-tree.cfb")
        for command, human, exact in [(["list", path, "Contents"], rb"stream +97\.7 KB  -", rb"stream +100000  -"),
                                      (["tree", path], rb"Contents \(97\.7 KB\)", rb"Contents \(100000\)"),
                                      (["info", DATA / "copy.7z"], rb"bytes +11\.6 KB", rb"bytes +\d{5}\n")]:
            self.assertRegex(self.succeed(*command), human)
            self.assertRegex(self.succeed(*command, "--bytes"), exact)
        self.assertEqual(len({line.index(line.split()[-1]) for line in self.succeed("list", path, "Many/*").decode().splitlines()}), 1)


if __name__ == "__main__":
    unittest.main()
