"""Documents of older versions: packages made of compound files, against olefile and 7zz; gzip streams, against gzip."""

import gzip
import json
import os
import random
import re
import signal
import subprocess
import time
import unittest

import olefile

from vexel_cli import BUILD, DATA, ROOT, SAMPLES, CommandTest, package_snapshot, seven_zip, snapshot


class Conversion(CommandTest):
    def test_packages_hold_what_the_documents_hold(self):
        for sample in SAMPLES:
            for command in ["convert"], ["pack", "--from"]:
                with self.subTest((sample, command)):
                    document, package = self.sample(sample), self.directory / f"{sample}.{command[0]}.7z"
                    before = document.read_bytes()
                    self.assertEqual(self.succeed(*command, document, package), b"")
                    unpacked = package_snapshot(package, self.directory / f"{sample}.{command[0]}")
                    self.assertEqual(unpacked, snapshot(document))
                    self.assertEqual(document.read_bytes(), before)

    def test_a_package_is_converted_too(self):
        for name in "plain-lzma2.7z", "empty.7z":
            self.succeed("convert", DATA / name, self.directory / name)
            self.assertEqual(package_snapshot(self.directory / name, self.directory / f"again {name}"),
                             package_snapshot(DATA / name, self.directory / f"first {name}"))

    def test_properties_are_those_that_olefile_reads(self):
        document, package = self.sample("namesdemo.xls"), self.directory / "package.7z"
        self.succeed("convert", document, package)
        with olefile.OleFileIO(str(document)) as ole:
            wanted = ole.get_metadata()
        for path in document, package:
            summary = json.loads(self.succeed("info", "--json", path))["summary"]
            self.assertEqual(summary, {
                "author": wanted.author.decode(), "editor": wanted.last_saved_by.decode(),
                "saved": wanted.last_saved_time.isoformat() + "Z", "program": wanted.creating_application.decode()})

    def test_properties_that_are_written_are_read_by_olefile_and_gsf(self):
        document, package = self.sample("foreign-tree.cfb"), self.directory / "package.7z"
        self.succeed("convert", document, package)
        for path in document, package:
            subprocess.run([ROOT / "scripts" / "wine", BUILD / "bin" / "archive_tool.exe", "properties", f"Z:{path}"],
                           check=True, timeout=120)
            summary = json.loads(self.succeed("info", "--json", path))["summary"]
            self.assertEqual(summary, {"title": "Чертёж 📐", "saved": "2024-01-01T00:58:22.4846848Z"})
        with olefile.OleFileIO(str(document)) as ole:
            title, thumbnail = map(ole.getproperties("\5SummaryInformation").get, (2, 17))
            streams = {name: ole.openstream(name).read() for name in ("\5SummaryInformation", "\5DocumentSummaryInformation")}
        self.assertEqual((title, thumbnail), ("Чертёж 📐\0", b"\x08\0\0\0\1\2\3\4\5"))
        read = subprocess.run(["gsf", "props", document, "gsf:page-count", "dc:date", "gsf:scale"], capture_output=True,
                              check=True, text=True).stdout
        self.assertEqual(re.findall("= (.*)", read), ["-7", "2024-01-01T00:58:22Z", "TRUE"])
        unpacked = package_snapshot(package, self.directory / "unpacked")
        self.assertEqual({name: unpacked["%05" + name[1:]] for name in streams}, streams)

    def test_nothing_is_overwritten_without_force(self):
        document, package = self.sample("namesdemo.xls"), self.directory / "there"
        package.write_bytes(b"there")
        self.fail_with(1, "cannot create", "convert", document, package)
        self.assertEqual(package.read_bytes(), b"there")
        self.succeed("convert", "--force", document, package)
        self.assertEqual(package.read_bytes()[:2], b"7z")

    def test_failures_leave_no_package(self):
        document = self.sample("foreign-tree.cfb")
        document.write_bytes(document.read_bytes()[:-60000])
        text = self.directory / "text"
        text.write_bytes(b"some text")
        for source in [document, text, self.directory / "missing", self.directory]:
            with self.subTest(source):
                self.fail_with(1, r": 0x80[0-9a-f]{6} \(", "convert", source, self.directory / "out.7z")
        self.fail_with(1, "cannot", "convert", self.sample("namesdemo.xls"), self.directory / "no" / "out.7z")
        self.assertEqual(sorted(os.listdir(self.directory)), ["foreign-tree.cfb", "namesdemo.xls", "text"])

    def test_a_damaged_stream_leaves_no_package(self):
        """Behind more than what is in memory at a time, so that there is half a package by then."""
        tree = self.directory / "tree"
        tree.mkdir()
        (tree / "a").write_bytes(bytes(70_000_000))
        (tree / "b").write_bytes(os.urandom(5000))
        package = self.directory / "damaged.7z"
        self.succeed("pack", tree, package)
        data = bytearray(package.read_bytes())
        data[data.index((tree / "b").read_bytes()) + 100] ^= 1
        package.write_bytes(data)
        self.fail_with(1, r'cannot copy "Z:.*damaged.7z\|b": 0x8003001e ', "convert", package, self.directory / "out.7z")
        self.assertEqual(sorted(os.listdir(self.directory)), ["damaged.7z", "tree"])

    def test_a_killed_conversion_leaves_no_half_made_package(self):
        document = self.sample("foreign-tree.cfb")
        for name in "abcdefgh":
            self.succeed("put", document, name, stdin=os.urandom(3_000_000))
        nodes = self.succeed("list", document).count(b"\n")
        before, package = document.read_bytes(), self.directory / "out.7z"
        seed = random.randrange(1 << 32)
        random.seed(seed)
        for _ in range(5):
            with self.start("convert", "--force", document, package) as conversion:
                time.sleep(random.uniform(0.1, 1.0))
                os.killpg(conversion.pid, signal.SIGKILL)
            self.assertEqual(document.read_bytes(), before)
            if package.exists():
                seven_zip("t", package)
                self.assertEqual(self.succeed("list", package).count(b"\n"), nodes, f"seed {seed}")
                package.unlink()


class Gunzip(CommandTest):
    def put(self, data):
        document = self.sample("namesdemo.xls")
        self.succeed("put", document, "Packed", stdin=data)
        return document, "Packed"

    def test_streams_of_gzip_are_inflated(self):
        for size in [0, 1, 5000, 3000000]:
            for level in "-1", "-9":
                text = bytes(i * i % 251 for i in range(1000)) * (size // 1000) + b"x" * (size % 1000)
                packed = subprocess.run(["gzip", level, "-n"], input=text, capture_output=True, check=True).stdout
                self.assertEqual(self.succeed("gunzip", *self.put(packed)), text)

    def test_what_is_not_whole_is_told(self):
        packed = bytearray(gzip.compress(b"inner text " * 1000, mtime=0))
        self.fail_with(1, "no gzip stream", "gunzip", *self.put(b"plain text"))
        self.fail_with(1, "no gzip stream", "gunzip", *self.put(b""))
        self.fail_with(1, "damaged", "gunzip", *self.put((DATA / "with-name.gz").read_bytes()))
        for at in -1, -5, len(packed) // 2:
            damaged = bytearray(packed)
            damaged[at] ^= 1
            self.fail_with(1, "damaged", "gunzip", *self.put(damaged))
        for size in 12, len(packed) // 2, len(packed) - 1:
            self.fail_with(1, "damaged", "gunzip", *self.put(packed[:size]))


if __name__ == "__main__":
    unittest.main()
