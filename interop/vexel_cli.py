"""Runs the companion program, and reads compound files with olefile and packages with 7zz, for the tests of this folder."""

import ctypes
import fcntl
import os
import pathlib
import shutil
import subprocess
import tempfile
import termios
import time
import unittest
import uuid

import olefile

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATA = ROOT / "tests" / "data"
BUILD = pathlib.Path(os.environ.get("VEXEL_BUILD_DIR", ROOT / "build" / "release"))


def run(command, stdin=b"", **options):
    """Runs a Windows program to its end. Of some ten thousand starts Wine ends one before the program runs, with status 1
    and without a word: that one is started again."""
    result = run_once(command, stdin, **options)
    if (result.returncode, result.stdout, result.stderr) == (1, b"", b""):
        result = run_once(command, stdin, **options)
    return result


def run_once(command, stdin, timeout=200, **options):
    """The result's output and error are bytes: what they hold when the program has ended. Not read through pipes, whose
    end comes only when everything that the program started has gone, too."""
    with (tempfile.TemporaryFile() as source, tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as error):
        source.write(stdin)
        source.seek(0)
        result = subprocess.run(command, stdin=source, stdout=output, stderr=error, timeout=timeout, **options)
        output.seek(0)
        error.seek(0)
        result.stdout, result.stderr = output.read(), error.read()
        return result


def vexel(*arguments, stdin=b""):
    """Runs the program to its end; standard output and error are bytes."""
    command = [ROOT / "scripts" / "vexel", *arguments]
    return run(command, timeout=120, stdin=stdin, env={**os.environ, "VEXEL_BUILD_DIR": str(BUILD)})


def encode(name):
    """A node's name as an element of a node path."""
    return "".join(f"%{ord(c):02x}" if c in "/%" or c < " " else c for c in name)


def nodes(path):
    """Every node's directory entry, by the tuple of names that leads to it."""
    found = {}

    def descend(entry, names):
        for child in entry.kids:
            found[(*names, child.name)] = child
            descend(child, (*names, child.name))

    with olefile.OleFileIO(str(path)) as ole:
        descend(ole.root, ())
    return found


def snapshot(path):
    """All that a file holds: contents of streams and class identifiers of storages, by encoded path."""
    result = {}
    with olefile.OleFileIO(str(path)) as ole:
        result[""] = ole.root.clsid
        for names, entry in nodes(path).items():
            is_stream = entry.entry_type == olefile.STGTY_STREAM
            result["/".join(map(encode, names))] = (
                ole.openstream(list(names)).read() if is_stream else entry.clsid)
    return result


def files_below(directory):
    """The contents of every file, and None for every directory, by path."""
    return {str(path.relative_to(directory)): path.read_bytes() if path.is_file() else None
            for path in directory.rglob("*")}


def seven_zip(*arguments, **options):
    return subprocess.run(["7zz", *map(str, arguments)], capture_output=True, check=True, timeout=200, **options)


def listing(path):
    """What 7zz makes of a package: attributes by path."""
    items, item = {}, None
    text = seven_zip("l", "-slt", "-sccUTF-8", path).stdout.decode()
    for line in text.partition("----------\n")[2].splitlines():
        key, _, value = line.partition(" = ")
        if key == "Path":
            item = items.setdefault(value, {})
        elif item is not None and key:
            item[key.removesuffix(" =")] = value
    return items


def bsdtar_names(package):
    """What bsdtar lists: paths, those of directories with a slash behind them."""
    return subprocess.run(["bsdtar", "-tf", package], capture_output=True, check=True,
                          env={**os.environ, "LC_ALL": "C.UTF-8"}).stdout.decode().splitlines()


def package_snapshot(path, directory):
    """As snapshot, of a package that 7zz unpacks."""
    seven_zip("x", "-y", f"-o{directory}", path)
    result = {"": ""}
    for entry in sorted(directory.rglob("*")):
        name = str(entry.relative_to(directory))
        if entry.name == ".clsid":
            storage = "" if entry.parent == directory else str(entry.parent.relative_to(directory))
            result[storage] = str(uuid.UUID(bytes_le=entry.read_bytes())).upper()
        elif entry.is_dir():
            result.setdefault(name, "")
        else:
            result[name] = entry.read_bytes()
    return result


class CommandTest(unittest.TestCase):
    """A test with a scratch directory and the sample files in it."""

    maxDiff = 2000

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="vexel-interop-"))
        self.addCleanup(shutil.rmtree, self.directory)

    def sample(self, name):
        """A writable copy of a sample."""
        return pathlib.Path(shutil.copy(DATA / name, self.directory))

    def start(self, *arguments, **options):
        """Begins a command, in a process group of its own. Its standard error is a file, which `end` reads."""
        error = tempfile.TemporaryFile()
        self.addCleanup(error.close)
        program = subprocess.Popen([ROOT / "scripts" / "vexel", *arguments], start_new_session=True,
                                   env={**os.environ, "VEXEL_BUILD_DIR": str(BUILD)}, **{"stderr": error, **options})
        program.errors = error
        return program

    def feed(self, program, data):
        """Gives a command input and waits until it has read it; `put` then has the document open."""
        program.stdin.write(data)
        program.stdin.flush()
        waiting = ctypes.c_int(1)
        deadline = time.monotonic() + 200
        while waiting.value and time.monotonic() < deadline:
            time.sleep(0.01)
            fcntl.ioctl(program.stdin, termios.FIONREAD, waiting)
        self.assertEqual(waiting.value, 0)

    def end(self, program):
        """Waits for a command that `start` began: its status, and what is on standard error by then."""
        status = program.wait(200)
        program.errors.seek(0)
        return status, program.errors.read()

    def succeed(self, *arguments, stdin=b""):
        """Runs a command that must be silent about errors; returns its output."""
        result = vexel(*arguments, stdin=stdin)
        self.assertEqual((result.returncode, result.stderr), (0, b""), arguments)
        return result.stdout

    def fail_with(self, status, pattern, *arguments, stdin=b""):
        """Runs a command that must fail with one matching line on standard error."""
        result = vexel(*arguments, stdin=stdin)
        error = result.stderr.decode()
        self.assertEqual(result.returncode, status, (arguments, error))
        self.assertEqual(error.count("\n"), 1, (arguments, error))
        self.assertRegex(error, r"\Avexel: [^\r\n]+\n\Z", arguments)
        self.assertRegex(error, pattern, arguments)
        return result.stdout


SAMPLES = ["namesdemo.xls", "foreign-tree.cfb", "large-sectors.cfb"]
