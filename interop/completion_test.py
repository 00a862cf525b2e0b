"""The completion scripts in the shells that are there: commands, options of a command, and files."""

import os
import re
import shutil
import subprocess
import unittest

from vexel_cli import BUILD, ROOT, CommandTest

# What stands on the line, and what must be offered for its last word.
LINES = [(["di"], ["diff"]), (["e"], ["extract"]), (["co"], ["completion", "convert"]), (["list", "--b"], ["--bytes"]),
         (["salvage", "--"], ["--force", "--help", "--json", "--partial", "--verbose"]),
         (["completion", "p"], ["powershell"]), (["list", "one"], ["one.cfb"]), (["verify", "one.cfb", "tw"], ["two.cfb"]),
         (["report", "one.cfb", "-o", "tw"], ["two.cfb"]), (["pack", "fol"], ["folder"]), (["diff", "one.cfb", "tw"], ["two.cfb"]),
         (["list", "--sort", "s"], ["size"]), (["help", "ver"], ["verify"]), (["cat", "site.cfb", "s"], ["Sub"]),
         (["list", "--sort", "size", "site.cfb", "Mini", "Sub/"], ["Sub/%05SummaryInformation", "Sub/Deep"]),
         (["put", "site.cfb", "Mini", "tw"], ["two.cfb"]), (["cat", "one.cfb", "x"], []), (["rm", "site.cfb", "Sub/no"], [])]


# In the zsh that is watched: what completion offers goes to a file, and another file tells that it is done.
ZSH_SETUP = r'''
PS1=
autoload -Uz compinit
compinit -u -D
source ./script.zsh
LISTMAX=1000
list() {
  compadd() {
    if ((${@[(I)-O]} || ${@[(I)-A]} || ${@[(I)-D]})); then # only asked for, not offered
      builtin compadd "$@"
      return
    fi
    local -a offered
    builtin compadd -O offered "$@"
    print -rl -- $offered >>offers
    builtin compadd "$@"
  }
  _main_complete
  print >finished
}
zle -C list-choices list-choices list
bindkey '^I' list-choices
print READY
'''

ZSH_DRIVER = r'''
rm -f offers finished
zmodload zsh/zpty
zpty z zsh -f -i
zpty -w z 'source ./setup'
zpty -r z x '*READY*'
zpty -w -n z "vexel $*"$'\t'
repeat 600; do
  [[ ! -e finished ]] || break
  sleep 0.1
done
zpty -d z
cat offers
'''


class Completion(CommandTest):
    def setUp(self):
        super().setUp()
        for name in "one.cfb", "two.cfb":
            (self.directory / name).touch()
        (self.directory / "folder").mkdir()
        self.sample("foreign-tree.cfb").rename(self.directory / "site.cfb")

    def script(self, shell):
        path = self.directory / f"script.{shell}"
        path.write_bytes(self.succeed("completion", shell))
        return path

    def ask(self, *command):
        environment = {**os.environ, "PATH": f"{ROOT / 'scripts'}:{os.environ['PATH']}", "VEXEL_BUILD_DIR": str(BUILD)}
        result = subprocess.run(command, capture_output=True, cwd=self.directory, timeout=60, text=True, env=environment)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        return sorted({line.split("\t")[0].rstrip("/ ") for line in result.stdout.splitlines() if line.strip()})

    def test_bash(self):
        script = self.script("bash")
        for words, wanted in LINES:
            with self.subTest(words):
                self.assertEqual(self.ask("bash", "-c", 'source "$1"; shift; COMP_WORDS=(vexel "$@"); COMP_CWORD=$#; _vexel; '
                                          'printf "%s\\n" "${COMPREPLY[@]}"', "bash", script, *words), wanted)

    @unittest.skipUnless(shutil.which("fish"), "no fish")
    def test_fish(self):
        script = self.script("fish")
        for words, wanted in LINES:
            with self.subTest(words):
                self.assertEqual(self.ask("fish", "-c", f"source {script}; complete -C 'vexel {' '.join(words)}'"), wanted)

    @unittest.skipUnless(shutil.which("zsh"), "no zsh")
    def test_zsh(self):
        """In a terminal of its own, for completion works in an editor only."""
        self.script("zsh")
        (self.directory / "setup").write_text(ZSH_SETUP)
        for words, wanted in LINES:
            with self.subTest(words):
                self.assertEqual(self.ask("zsh", "-f", "-c", ZSH_DRIVER, "zsh", *words), wanted)

    def test_every_shell_knows_every_command_and_option(self):
        commands = re.findall(r"(?m)^  (\w+)", self.succeed("--help").decode().split("Commands:")[1].split("\n\n")[0])
        options = {command: re.findall(r"(?m)^  (?:-\w,)?--(\w+)", self.succeed(command, "--help").decode())
                   for command in commands}
        for shell in "bash", "zsh", "fish", "powershell":
            lines = self.script(shell).read_text().splitlines()
            for command, option in ((command, option) for command in commands for option in options[command]):
                self.assertTrue(any(re.search(rf"(--|-l ){option}\b", line) for line in lines if command in line),
                                (shell, command, option))
        self.fail_with(2, 'did you mean "fish"', "completion", "fsih")


if __name__ == "__main__":
    unittest.main()
