"""Documents of older versions: packages made of compound files, against olefile and 7zz; gzip streams, against gzip."""

import gzip
import json
import os
import re
import subprocess
import unittest

import olefile

from vexel_cli import BUILD, DATA, ROOT, SAMPLES, CommandTest, listing, package_snapshot, seven_zip, snapshot


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

    def test_a_stream_that_looks_like_a_class(self):
        """Of a compound file: what has the class's size would be the class in a package."""
        document, package = self.sample("foreign-tree.cfb"), self.directory / "made.7z"
        self.succeed("put", document, "Sub/.clsid", stdin=b"sixteen bytes...")
        self.fail_with(1, r"Sub/\.clsid.*storage's class", "convert", document, package)
        self.assertFalse(package.exists())
        self.succeed("put", document, "Sub/.clsid", stdin=b"fewer")
        self.succeed("convert", document, package)
        self.assertEqual(self.succeed("cat", package, "Sub/.clsid"), b"fewer")
        data = bytearray((DATA / "foreign-tree.cfb").read_bytes())
        entry = data.index("Many\0".encode("utf-16-le"))
        data[entry + 80:entry + 96] = bytes(range(16))  # a class, for which the package has but one place
        document.write_bytes(data)
        self.succeed("put", document, "Many/.clsid", stdin=b"fewer")
        package.unlink()
        self.fail_with(1, "what was written is not what was read", "convert", document, package)
        self.assertFalse(package.exists())

    def test_an_empty_package_is_converted_too(self):
        self.succeed("convert", DATA / "empty.7z", self.directory / "made.7z")
        self.assertEqual(listing(self.directory / "made.7z"), {})

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

    def test_failures_leave_no_package_and_others_as_they_are(self):
        cut, whole, there = self.sample("foreign-tree.cfb"), self.sample("namesdemo.xls"), self.directory / "there"
        cut.write_bytes(cut.read_bytes()[:-60000])
        there.write_bytes(b"there")
        for source, target in [(cut, "out.7z"), (there, "out.7z"), (self.directory / "missing", "out.7z"),
                               (self.directory, "out.7z"), (whole, "no/out.7z"), (whole, "there")]:
            with self.subTest((source, target)):
                self.fail_with(1, r"cannot .*: 0x80[0-9a-f]{6} \(", "convert", source, self.directory / target)
        self.assertEqual(sorted(os.listdir(self.directory)), ["foreign-tree.cfb", "namesdemo.xls", "there"])
        self.assertEqual(there.read_bytes(), b"there")
        self.succeed("convert", "--force", whole, there)
        seven_zip("t", there)

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


class Gunzip(CommandTest):
    def test_streams_of_gzip_are_inflated_and_others_told(self):
        document, text = self.sample("namesdemo.xls"), bytes(i * i % 251 for i in range(1000)) * 3000
        packed = subprocess.run(["gzip", "-n"], input=text, capture_output=True, check=True).stdout
        self.succeed("put", document, "Packed", stdin=packed)
        self.assertEqual(self.succeed("gunzip", document, "Packed"), text)
        inflated = self.directory / "inflated"
        self.succeed("gunzip", document, "Packed", "-o", inflated)
        self.assertEqual(inflated.read_bytes(), text)
        small = gzip.compress(b"inner text " * 1000, mtime=0)
        for stored, message in [(b"plain text", "no gzip stream"), (b"", "no gzip stream"),
                                ((DATA / "with-name.gz").read_bytes(), "damaged"), (small[:12], "damaged"),
                                (small[:-1], "damaged"), (small[:-1] + bytes([small[-1] ^ 1]), "damaged"),
                                (small[:-5] + bytes([small[-5] ^ 1]) + small[-4:], "damaged")]:
            with self.subTest(stored[:20]):
                (self.directory / "stored").write_bytes(stored)
                self.succeed("put", self.sample("namesdemo.xls"), "Packed", self.directory / "stored")
                self.fail_with(1, message, "gunzip", document, "Packed")
                self.fail_with(1, message, "gunzip", document, "Packed", "-o", self.directory / "none")
                self.assertFalse((self.directory / "none").exists())


if __name__ == "__main__":
    unittest.main()
