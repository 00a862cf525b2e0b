"""Commands that somebody stops: they end with a status of their own and leave nothing half-made."""

import contextlib
import fcntl
import os
import pty
import signal
import subprocess
import termios
import time
import unittest

from vexel_cli import CommandTest, seven_zip


SIGNALS = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP]


class Stopping(CommandTest):
    def setUp(self):
        super().setUp()
        # Who starts this in the background may have it ignore signals. A shell cannot trap what it ignores from its
        # start on; but what is handled here, children begin with as usual.
        for number in SIGNALS:
            signal.signal(number, signal.default_int_handler)
        tree = self.directory / "tree"
        tree.mkdir()
        self.large = os.urandom(1_500_000)
        for name in "abc":
            (tree / name).write_bytes(self.large)
        self.package = self.directory / "package.7z"
        seven_zip("a", "-mx0", "-ms=off", "-m0=copy", self.package, *tree.iterdir())
        self.before = self.package.read_bytes()
        self.commands = {
            "pack": ["pack", tree, self.directory / "new.7z"],
            "convert": ["convert", self.package, self.directory / "new.7z"],
            "extract": ["extract", self.package, self.directory / "out"],
            "put": ["put", self.package, "a", tree / "b"],
            "salvage": ["salvage", self.package, self.directory / "new.7z"],
            "mv": ["mv", self.package, "a", "d/a"],
        }
        self.there = {path.name for path in self.directory.iterdir()} | {"out"}

    def check(self, status, error):
        """What a stopped command may leave: whole files of extract's. One that was done already says so."""
        self.assertEqual(status, 130, error)
        done = b"what was to be done is done" in error
        found = {path.name for path in self.directory.iterdir()}
        self.assertLessEqual(found, self.there | ({"new.7z"} if done else set()))
        if "new.7z" in found:
            seven_zip("t", self.directory / "new.7z")
        for path in (self.directory / "out").glob("*"):
            self.assertEqual((path.name in "abc", path.stat().st_size), (True, len(self.large)))
        if not done:
            self.assertTrue(self.package.read_bytes() == self.before)
        seven_zip("t", self.package)

    def test_signals_at_many_moments(self):
        for number, (name, command) in enumerate(self.commands.items()):
            for moment, delay in enumerate([0.05, 0.6, 1.1]):
                kind = SIGNALS[(number + moment) % 3]
                with self.subTest((name, delay, kind)):
                    with self.start(*command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as program:
                        time.sleep(delay)
                        program.send_signal(kind)
                        status, error = self.end(program)
                    # Else it was faster, or the signal came before the script was there to take it.
                    if status not in (0, -kind):
                        self.check(status, error)
                    for path in [*(self.directory / "out").glob("*"), self.directory / "new.7z"]:
                        path.unlink(missing_ok=True)
                    self.package.write_bytes(self.before)

    def test_waiting_for_input_ends_at_once(self):
        with self.start("put", self.package, "a", stdin=subprocess.PIPE) as program:
            self.feed(program, b"x")
            program.send_signal(signal.SIGINT)
            self.assertEqual(self.end(program)[0], 130)
        self.assertTrue(self.package.read_bytes() == self.before)

    def on_terminal(self, command, until, key):
        """Status and output of a command that is given a key when its output has a text."""
        master, slave = pty.openpty()
        output = b""
        with self.start(*command, stdin=slave, stdout=slave, stderr=slave,
                        preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0)) as program:
            os.close(slave)
            with contextlib.suppress(OSError):  # the end: nobody has the terminal any more
                while data := os.read(master, 4096):
                    if until not in output and until in output + data:
                        os.write(master, key)
                    output += data
        os.close(master)
        return program.returncode, output

    def test_progress_and_control_c_on_a_terminal(self):
        # Progress shows itself after a second, so this has to be more work than the fastest machine does in one.
        (self.directory / "tree" / "large").write_bytes(os.urandom(100_000_000))
        status, output = self.on_terminal(self.commands["pack"], b"ing: ", b"\x03")
        self.assertRegex(output, rb"(pack|compress)ing: \d+ (s|%)")
        self.check(status, output)


if __name__ == "__main__":
    unittest.main()
