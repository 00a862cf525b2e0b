"""scripts/wine with Wine's services gone, in a prefix of its own: who starts them, and what a killed starter leaves."""

import os
import signal
import subprocess
import time
import unittest

from vexel_cli import BUILD, ROOT

WINE = ROOT / "scripts" / "wine"
ENVIRONMENT = {**os.environ, "VEXEL_WINEPREFIX": str(BUILD / "wine-services")}


def echo(word, **options):
    return subprocess.run([WINE, "cmd", "/c", "echo", word], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=60, env=ENVIRONMENT, **options)


class Services(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        subprocess.run([WINE, "--start"], check=True, timeout=200, env=ENVIRONMENT)

    def setUp(self):
        self.stop()
        self.addCleanup(self.stop)

    def stop(self):
        subprocess.run([WINE, "--stop"], check=True, timeout=60, env=ENVIRONMENT)

    def test_a_pipe_ends_with_the_program_that_needed_the_services(self):
        self.assertEqual(echo("done", check=True).stdout, b"done\r\n")

    def test_a_program_killed_while_the_services_start_does_not_block_the_next(self):
        for delay in (0.0, 0.02, 0.05, 0.1, 0.2, 0.4, 0.8):
            with self.subTest(delay):
                self.stop()
                killed = subprocess.Popen([WINE, "cmd", "/c", "echo", "killed"], stdout=subprocess.DEVNULL,
                                          start_new_session=True, env=ENVIRONMENT)
                time.sleep(delay)
                os.killpg(killed.pid, signal.SIGKILL)
                killed.wait()
                self.assertEqual(echo("done", check=True).stdout, b"done\r\n")


if __name__ == "__main__":
    unittest.main()
