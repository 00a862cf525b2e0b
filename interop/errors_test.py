"""Exit statuses and the one line on standard error, for everything a user can get wrong."""

import os
import re
import subprocess
import unittest

from vexel_cli import DATA, ROOT, CommandTest, vexel


class Errors(CommandTest):
    def test_wrong_usage(self):
        path = self.sample("namesdemo.xls")
        for arguments, pattern in [
                ([], "no command .*--help"),
                (["frobnicate", path], 'no command "frobnicate"'),
                (["-v"], 'no option "-v"; see "vexel --help"'),
                (["list"], "FILE"),
                (["info", path, "more"], "more"),
                (["list", path, "--yaml"], "--yaml"),
                (["cat", path], "NODE"),
                (["extract", path], "DIR"),
                (["extract", path, "W*", path.parent / "out"], "in front of the nodes"),
                (["salvage", path], "OUT"),
                (["salvage", path, path, "--force"], "the damaged file itself"),
                (["rm", path, ""], "root"),
                (["put", path, ""], "root"),
                *((["cat", path, node], "empty element") for node in ["/Workbook", "Workbook/", "a//b"]),
                *((["cat", path, node], "malformed escape") for node in ["%", "a%4/b", "%zz"]),
                (["cat", path, "a%00"], "%00"),
                *((["put", path, node], r'%2a.*"' + re.escape(node)) for node in ["*", "new/a?"]),
                (["mv", path, "Workbook", "W*"], "%2a"),
                (["list", path, path], "second document"),
                (["verify", f"{path.parent}/*/x"], "last part"),
                (["list", path, "--sort", "colour"], "none of size, name, time"),
                (["--json", "list", path], "behind the command"),
                *(([command, path, "Workbook", "-o", path, "--force"], "over the document itself") for command in ("cat", "gunzip")),
                (["convert", path, path, "--force"], "over the document itself"),
                (["put", path, "new", path], "the document itself"),
        ]:
            with self.subTest(arguments):
                self.fail_with(2, pattern, *arguments)

    def test_bad_files(self):
        for name, data in [("empty", b""), ("five bytes", b"\xd0\xcf\x11\xe0\xa1"), ("text", b"some text\n" * 500),
                           ("cut.xls", (DATA / "namesdemo.xls").read_bytes()[:9000])]:
            (self.directory / name).write_bytes(data)
        (self.directory / "directory").mkdir()
        commands = [["list"], ["put", "new"], ["info"], ["salvage", self.directory / "new.7z"], ["verify"], ["report"]]
        for name, words, known in [
                ("missing", "0x80030002 .there is no such file", 6), ("no/such/directory", "0x80030003 .there is no such directory", 6),
                ("directory", "0x80030005 .it is a directory", 6), ("*.7z", "one file is wanted|no file matches", 6), ("empty", "see salvage", 2),
                ("five bytes", "see salvage", 2), ("text", "see salvage", 2),
                ("cut.xls", "0x80030109 .*see salvage", 2), ("line\nbreak", "0x800300fc .no file can have", 2)]:
            windows_path = re.escape(name.replace("/", "\\").replace("\n", "?"))
            for command, *more in commands[:known]:
                with self.subTest((command, name)):
                    self.fail_with(1, rf'(cannot open|no file matches) "Z:[^"]*\\{windows_path}": 0x80[0-9a-f]{{6}} \(.+\)$',
                                   command, self.directory / name, *more)
                    self.fail_with(1, words, command, self.directory / name, *more)
        self.assertEqual((self.directory / "text").read_bytes(), b"some text\n" * 500)
        self.fail_with(1, "0x8007010b .it is a file, and a directory is needed", "pack", self.directory / "text", self.directory / "new.7z")

    def test_what_nothing_comes_back_from_replaces_nothing(self):
        source, mine = self.directory / "source", self.directory / "mine.7z"
        mine.write_bytes(b"mine")
        for data, words in [(b"some text\n" * 500, "was found whole"), ((DATA / "solid.7z").read_bytes()[:2000], "--partial keeps")]:
            source.write_bytes(data)
            self.fail_with(1, rf'nothing can be brought back from ".*": 0x800300fb \(no node .*{words}', "salvage", source, mine, "--force")
            self.assertEqual(mine.read_bytes(), b"mine")

    def test_bad_nodes_and_sources(self):
        path = self.sample("foreign-tree.cfb")
        before = path.read_bytes()
        for arguments, node, code in [
                (["cat", path, "missing"], "missing", "80030002"),
                (["cat", path, "Sub/Deep/missing"], "Sub/Deep/missing", "80030002"),
                (["cat", path, "Sub"], "Sub", "80030001"),
                (["cat", path, "Sub/%05SummaryInformation/x"], "Sub/%05SummaryInformation", "80030001"),
                (["cat", path, ""], None, "80030001"),
                (["extract", path, self.directory / "out", "missing"], "missing", "80030002"),
                (["cat", path, "a:b"], "a:b", "800300fc"),
                (["cat", path, "n" * 32 + "/x"], "n" * 32, "800300fc"),
                (["put", path, "Sub"], "Sub", "80030050"),
                *((["put", path, node], node, "800300fc")
                  for node in ["n" * 32, "a:b", "a\\b", "a%2fb", "a!b", "new/" + "n" * 32]),
                (["put", path, "Sub/%05SummaryInformation/x"], "Sub/%05SummaryInformation", "80030001"),
                (["rm", path, "missing"], "missing", "80030002"),
                (["rm", path, "missing/below"], "missing", "80030002"),
        ]:
            with self.subTest(arguments):
                where = re.escape("foreign-tree.cfb" + (f"|{node}" if node else ""))
                self.fail_with(1, rf'\\{where}": 0x{code} \(.+\)$', *arguments, stdin=b"x")
                self.assertEqual(path.read_bytes(), before)
        for source in self.directory / "missing source", self.directory:
            self.fail_with(1, rf'cannot open "[^"]*{source.name}": 0x8003', "put", path, "new", source)
        self.assertEqual(path.read_bytes(), before)
        self.assertFalse((self.directory / "out").exists())

    def test_a_file_that_another_process_writes(self):
        path = self.sample("namesdemo.xls")
        with self.start("put", path, "slow", stdin=subprocess.PIPE) as writer:
            self.feed(writer, b"first")
            self.assertIn(b"Workbook", self.succeed("list", path))
            self.fail_with(1, r"0x800[37]0020 ", "put", path, "other", stdin=b"x")
            writer.stdin.write(b" and second")
        self.assertEqual(self.succeed("cat", path, "slow"), b"first and second")

    def test_a_reader_that_leaves_is_no_failure(self):
        path = self.directory / "many.7z"
        (self.directory / "tree").mkdir()
        (self.directory / "tree" / "large").write_bytes(os.urandom(1_000_000))
        for number in range(700):
            (self.directory / "tree" / f"{number}{' a long name' * 16}").touch()
        self.succeed("pack", self.directory / "tree", path)
        for command in ["cat", path, "large"], ["list", path], ["list", "--json", path], ["tree", path]:
            with self.subTest(command[0]):
                with self.start(*command, stdout=subprocess.PIPE) as program:
                    program.stdout.read(10)
                    program.stdout.close()
                    self.assertEqual(self.end(program), (141, b""))

    def test_every_command_is_known_wherever_there_is_a_list(self):
        listed = re.search(r"Commands:\n(.*?)\n\n", self.succeed("--help").decode(), re.DOTALL)[1]
        commands = {line.split()[0] for line in listed.splitlines() if line.strip()}
        runner = (ROOT / "scripts" / "vexel").read_text()
        kinds = re.findall(r"\[(\w+)\]=", runner)
        manual = (ROOT / "docs" / "vexel-program.md").read_text().split("```")[1]
        self.assertEqual(commands, set(kinds))
        self.assertEqual(commands, set(re.findall(r"(?m)^vexel (\w+)", manual)))
        for command in commands:
            text = self.succeed(command, "--help").decode()
            self.assertIn(f"Usage: vexel {command}", text)
            self.assertEqual(text.split("Examples:")[1].count(f"vexel {command} "), 2, command)

    def test_verbose_shows_the_log(self):
        result = vexel("list", "--verbose", self.directory / "missing")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr.decode(), r"(?m)^log, minor failure: .*missing.*0x")
        self.assertRegex(result.stderr.decode(), r"(?m)^vexel: cannot open ")


if __name__ == "__main__":
    unittest.main()
