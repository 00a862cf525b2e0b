"""What diff tells, against the edits that were made and what olefile finds in both files."""

import itertools
import json
import shutil
import unittest

from vexel_cli import DATA, CommandTest, nodes, seven_zip, snapshot, vexel

# What is done to foreign-tree.cfb, and the differences that makes: kind, path, and where it was or what changed.
EDITS = [
    ([], set()),
    ([("put", "Contents", b"x" * 100_000)], {("changed", "Contents", "contents")}),
    ([("put", "Mini", b"longer than it was" * 9)], {("changed", "Mini", "contents")}),
    ([("put", "New/inner", b"brand new")], {("added", "New", None), ("added", "New/inner", None)}),
    ([("rm", "Many/item007"), ("rm", "Чертёж")],
     {("removed", "Many/item007", None), ("removed", "Чертёж", None), ("removed", "Чертёж/Лист 1", None)}),
    ([("mv", "Sub/Deep", "Else/where"), ("mv", "Exact4096", "Sub/exact")],
     {("added", "Else", None), ("moved", "Else/where", "Sub/Deep"), ("moved", "Sub/exact", "Exact4096")}),
    # Moved and changed: the storage is another one, what is left of it moved.
    ([("mv", "Many", "Lot"), ("put", "Lot/item009", b"changed meanwhile")],
     {("removed", "Many", None), ("added", "Lot", None), ("removed", "Many/item009", None),
      ("added", "Lot/item009", None), *(("moved", f"Lot/item{n:03}", f"Many/item{n:03}") for n in range(40) if n != 9)}),
    ([("rm", "Mini"), ("put", "Mini/now a storage", b"!")],
     {("changed", "Mini", "type"), ("added", "Mini/now a storage", None)}),
    # What is empty moves under its own name only.
    ([("mv", "Many/item000", "Sub/item000")], {("moved", "Sub/item000", "Many/item000")}),
    ([("mv", "Many/item000", "Sub/other")], {("removed", "Many/item000", None), ("added", "Sub/other", None)}),
]


class Diff(CommandTest):
    def differences(self, before, after, status=None):
        result = vexel("diff", "--json", before, after)
        found = json.loads(result.stdout)
        self.assertEqual(result.returncode, bool(found["differences"]) if status is None else status, result.stderr)
        return {(one["kind"], one["path"], one.get("from") or one.get("what")) for one in found["differences"]}, found

    def test_edits_in_all_formats(self):
        for number, (edits, wanted) in enumerate(EDITS):
            with self.subTest(edits):
                before, after = (self.directory / f"{name} {number}.cfb" for name in ("before", "after"))
                shutil.copy(DATA / "foreign-tree.cfb", before)
                shutil.copy(before, after)
                for command, node, *rest in edits:
                    self.succeed(command, after, node, *(x for x in rest if isinstance(x, str)),
                                 stdin=rest[0] if rest and isinstance(rest[0], bytes) else b"")
                for path in before, after:
                    self.succeed("convert", path, path.with_suffix(".7z"))
                for one, other in itertools.product((".cfb", ".7z"), repeat=2):
                    told, _ = self.differences(before.with_suffix(one), after.with_suffix(other))
                    self.assertEqual(told, wanted, (one, other))
                # No path that olefile finds different is left out.
                first, second = snapshot(before), snapshot(after)
                differ = {path for path in {*first, *second} if first.get(path) != second.get(path)}
                places = {place for kind, *paths in told for place in (paths if kind == "moved" else paths[:1])}
                self.assertEqual({path for path in differ if not any(f"{path}/".startswith(f"{p}/") for p in places)}, set())

    def test_classes_and_sizes(self):
        before = self.sample("foreign-tree.cfb")
        data = bytearray(before.read_bytes())
        for name in "Root Entry", "Deeper":
            entry = data.index((name + "\0").encode("utf-16-le"))
            data[entry + 80:entry + 96] = bytes(range(16))
        after = self.directory / "classes.cfb"
        after.write_bytes(data)
        self.succeed("put", after, "Mini", stdin=b"seven b")
        self.succeed("convert", after, self.directory / "classes.7z")
        for other in after, self.directory / "classes.7z":
            told, found = self.differences(before, other)
            self.assertEqual(told, {("changed", "", "class"), ("changed", "Sub/Deep/Deeper", "class"),
                                    ("changed", "Mini", "contents")})
            self.assertEqual(found["same"], len(nodes(before)) - 2)
            self.assertEqual([(one["before"], one["after"]) for one in found["differences"] if "before" in one], [(63, 7)])
        text = vexel("diff", before, other).stdout.decode().splitlines()
        self.assertEqual(text, ["changed  /  (class)", "changed  Mini  (63 B → 7 B)", "changed  Sub/Deep/Deeper  (class)",
                                f"0 removed, 0 added, 3 changed, 0 moved, {found['same']} alike"])

    def test_what_only_looks_like_a_class(self):
        packages = []
        for data in b"abc", b"xyz":
            (self.directory / "M").mkdir(exist_ok=True)
            (self.directory / "M" / ".clsid").write_bytes(data)
            packages.append(self.directory / f"{data.decode()}.7z")
            seven_zip("a", packages[-1], "M", cwd=self.directory)
        self.assertEqual(self.differences(*packages)[0], {("changed", "M/.clsid", "contents")})
        self.succeed("rm", packages[0], "M/.clsid")
        self.succeed("put", packages[0], "M/.clsid/x", stdin=b"1")
        found = self.differences(*packages)[1]["differences"]
        self.assertEqual([("before" in one, one.get("after")) for one in found if one.get("what") == "type"], [(False, 3)])

    def test_trouble(self):
        sound, damaged = self.sample("copy.7z"), self.directory / "damaged.7z"
        data = bytearray(sound.read_bytes())
        data[32 + 5_000] ^= 1
        damaged.write_bytes(data)
        result = vexel("diff", "--json", sound, damaged)
        self.assertEqual((result.returncode, result.stderr.count(b"\n")), (2, 1), result)
        self.assertRegex(result.stderr, rb"damaged.7z\|.*: 0x")
        self.assertEqual(json.loads(result.stdout)["differences"], [])
        self.assertEqual(self.succeed("diff", sound, sound), b"")
        data[40] ^= 1  # in the root's class
        damaged.write_bytes(data)
        result = vexel("diff", damaged, sound)
        self.assertEqual((result.returncode, result.stdout, result.stderr.count(b"\n")), (2, b"", 2), result)
        self.assertIn(b"damaged.7z|.clsid", result.stderr)
        for pair in [sound, "/missing"], ["/missing", sound]:
            self.assertEqual(self.fail_with(2, "cannot open", "diff", *pair), b"")


if __name__ == "__main__":
    unittest.main()
