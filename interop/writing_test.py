"""What put and rm leave in a file, read with olefile and gsf."""

import re
import subprocess
import unittest

from vexel_cli import SAMPLES, CommandTest, snapshot


def content(size, seed):
    return bytes((i * 7 + i // 256 * seed + seed) & 0xFF for i in range(size))


def decode(node):
    return re.sub("%(..)", lambda escape: chr(int(escape[1], 16)), node)


def gsf_cat(path, node):
    return subprocess.run(["gsf", "cat", path, node], capture_output=True, check=True).stdout


def gsf_sizes(path):
    """What gsf lists as files: name and size. It takes empty storages for files, too."""
    listing = subprocess.run(["gsf", "list", path], capture_output=True, check=True).stdout.decode()
    return sorted((line[35:], int(line[1:35])) for line in listing.splitlines() if line.startswith("f "))


def sizes_for_gsf(wanted):
    storages = {node.rpartition("/")[0] for node in wanted}
    return sorted((decode(node), len(data) if isinstance(data, bytes) else 0)
                  for node, data in wanted.items() if node not in storages)


class Writing(CommandTest):
    def expect(self, path, wanted):
        """The file holds exactly what is wanted: the new contents and everything else as it was."""
        found = snapshot(path)
        self.assertEqual({place: data for place, data in found.items() if wanted.get(place) != data}, {})
        self.assertEqual(found.keys(), wanted.keys())

    def put(self, path, wanted, node, data, from_file=False):
        if from_file:
            source = self.directory / "source file ы"
            source.write_bytes(data)
            self.succeed("put", path, node, source)
        else:
            self.succeed("put", path, node, stdin=data)
        parents = node.split("/")[:-1]
        for depth in range(1, len(parents) + 1):
            wanted.setdefault("/".join(parents[:depth]), "")
        wanted[node] = data
        self.expect(path, wanted)

    def remove(self, path, wanted, node):
        self.succeed("rm", path, node)
        for place in [p for p in wanted if p == node or p.startswith(node + "/")]:
            del wanted[place]
        self.expect(path, wanted)

    def test_put_and_rm_change_only_their_node(self):
        for name in SAMPLES:
            with self.subTest(name):
                path = self.sample(name)
                wanted = snapshot(path)
                streams = [place for place, data in wanted.items() if isinstance(data, bytes)]
                largest = max(streams, key=lambda place: len(wanted[place]))
                self.put(path, wanted, "new", content(5000, 1), from_file=True)
                self.put(path, wanted, "empty", b"")
                self.put(path, wanted, largest, content(10, 2))
                self.put(path, wanted, largest, content(300_000, 3), from_file=True)
                self.put(path, wanted, "Папка/%05Внутри %25/100%252/лист №1 📐", content(4095, 4))
                self.put(path, wanted, "Папка/name with 31 characters, no dot", content(4096, 5))
                self.assertEqual(gsf_cat(path, "new"), content(5000, 1))
                self.assertEqual(gsf_cat(path, decode(largest)), content(300_000, 3))
                self.remove(path, wanted, streams[0] if streams[0] != largest else streams[1])
                self.remove(path, wanted, "Папка")
                self.assertEqual(gsf_sizes(path), sizes_for_gsf(wanted))


if __name__ == "__main__":
    unittest.main()
