"""Holds the documents against the program that they describe.

  docs_check.py BUILD_DIRECTORY COMPILER [EMULATOR]

 - Every block of C++ compiles. It is a program if it has a function `main`; declarations, which the blocks below it on
   its page may use, if it has the mark DECLARATIONS; and else what stands in a function that has the variables of
   PRELUDE. Includes may stand at its top.
 - A block of C++ followed by a block `output` is run, and prints just that.
 - Each command `$ vexel ...` in a block `console` is run, and prints what stands below it.
 - Every link leads to a file that exists, and to a heading that it has.

Programs and commands run, page by page, in a folder with copies of the sample files that SAMPLES names.
"""

import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "scripts"))
import pages  # noqa: E402
import source_tree  # noqa: E402

# By the names that they have in the documents: the file, and how many of its bytes are there.
SAMPLES = {
    "hall.xls": ("namesdemo.xls", None),
    "site.cfb": ("foreign-tree.cfb", None),
    "parts.7z": ("plain-lzma2.7z", None),
    "damaged.cfb": ("foreign-tree.cfb", 160000),
    "headless.7z": ("plain-lzma2.7z", 200000),
    "old.gz": ("no-name.gz", None),
}
DECLARATIONS = "<!-- declarations -->\n"
PRELUDE = """
StorageRef document, storage, target;
StreamRef stream;
SharedPathName path;
long status = S_OK;
void report(long) {}
"""


def texts(*patterns):
    for page in source_tree.files(*(patterns or ("README.md", "docs/*.md"))):
        yield page, (ROOT / page).read_text(encoding="utf-8")


def check_links():
    for page, text in texts("*.md"):
        for file, anchor in pages.links(text):
            target = (ROOT / page).parent / file if file else ROOT / page
            if not target.exists():
                yield f"{page}: link to {file}, which does not exist"
            elif anchor and anchor not in {pages.slug(heading) for _, _, heading in pages.headings(target.read_text())}:
                yield f"{page}: link to {file}#{anchor}, which has no such heading"


class Example:
    """A block of C++ as a part of the one source that all of them make."""

    def __init__(self, page, text, block, number, output):
        self.place = f"{page}:{block.line}"
        self.page = page
        self.output = output
        self.includes = re.findall(r"^#include .*\n", block.text, flags=re.MULTILINE)
        body = re.sub(r"^#include .*$", "", block.text, flags=re.MULTILINE)
        body = f'#line {block.line} "{page}"\n{body}'
        before = "\n".join(text.split("\n")[:block.line - 2]) + "\n"
        name = f"block{number}"
        scope = "page_" + re.sub(r"\W", "_", page)
        self.call = f"{scope}::{name}()"
        if "int main(" in body:
            body = re.sub(r"\}\s*$", "return 0; }", body)  # which only the real one may leave out
            body = f"namespace {name} {{\n{body}\n}}"
            self.call = f"{scope}::{name}::main()"
        elif not before.endswith(DECLARATIONS):
            body = f"auto {name}() {{\n{body}\n}}"
        self.code = f"namespace {scope} {{\n{body}\n}}\n"


def examples():
    number = 0
    for page, text in texts():
        blocks = [*pages.blocks(text), None]
        for block, following in zip(blocks, blocks[1:]):
            if block.language == "cpp":
                number += 1
                output = following.text if following and following.language == "output" else None
                yield Example(page, text, block, number, output)


def source_of(parts):
    calls = "".join(f"  case {number}: {part.call}; break;\n" for number, part in enumerate(parts) if part.output)
    return ("#include <initguid.h>\n" + "".join(dict.fromkeys(line for part in parts for line in part.includes)) +
            "#include <cstdio>\n#include <cstdlib>\n#include <vexel/storage.h>\n" + PRELUDE +
            "".join(part.code for part in parts) +
            '#line 1 "docs_check.py"\nint main(int, char** numbers) {\n switch (std::atoi(numbers[1])) {\n' + calls +
            " }\n}\n")


class Machine:
    """Where programs run: a folder with the samples for each page."""

    def __init__(self, build, emulator, folder):
        self.bin = pathlib.Path(build).resolve() / "bin"
        self.emulator = emulator
        self.folder = pathlib.Path(folder)
        self.environment = {**os.environ, "WINEPATH": f"Z:{self.bin}"}

    def run(self, page, program, *arguments):
        """What the program prints, on both of its channels."""
        place = self.folder / pathlib.PurePath(page).stem
        if not place.exists():
            place.mkdir()
            for name, (sample, size) in SAMPLES.items():
                (place / name).write_bytes((ROOT / "tests/data" / sample).read_bytes()[:size])
        done = subprocess.run([*self.emulator, program, *arguments], cwd=place, env=self.environment,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
        return done.stdout.decode().replace("\r", "")


def unlike(place, expected, printed):
    # A page cannot show whether the last line is ended.
    if printed.rstrip("\n") != expected.rstrip("\n"):
        yield f"{place}: should print\n{expected}but prints\n{printed}"


def check_code(machine, compiler):
    parts = [*examples()]
    if not any(part.output for part in parts):
        yield "no page has a program with its output: are blocks still found?"
    source, program = machine.folder / "examples.cpp", machine.folder / "examples.exe"
    source.write_text(source_of(parts), encoding="utf-8")
    build = subprocess.run(
        [*shlex.split(compiler), "-std=c++20", "-Wall", "-Wno-unused", "-D__USE_MINGW_ANSI_STDIO=1", "-DUNICODE", "-DNOMINMAX",
         f"-I{ROOT / 'include'}", source, "-o", program, f"-L{machine.bin.parent}", "-lvexelstorage", "-lvxframework",
         "-lvxdiagnostics", "-lole32", "-luuid"], capture_output=True, text=True)
    if build.returncode or "warning" in build.stderr:
        yield build.stderr
        return
    for number, part in enumerate(parts):
        if part.output:
            yield from unlike(part.place, part.output, machine.run(part.page, program, str(number)))


def check_commands(machine):
    found = 0
    for page, text in texts():
        for block in pages.blocks(text):
            if block.language != "console":
                continue
            found += 1
            for command, output in re.findall(r"^\$ vexel (.*)\n((?:[^$].*\n|\n)*)", block.text, flags=re.MULTILINE):
                printed = machine.run(page, machine.bin / "vexel.exe", *shlex.split(command))
                yield from unlike(f"{page}:{block.line}: vexel {command}", output, printed)
    if found == 0:
        yield "no page has a command with its output: are blocks still found?"


def main(build, compiler, *emulator):
    with tempfile.TemporaryDirectory() as folder:
        machine = Machine(build, emulator, folder)
        faults = [*check_links(), *check_code(machine, compiler), *check_commands(machine)]
    print("\n".join(faults) or "the documents are right")
    return 1 if faults else 0


sys.exit(main(*sys.argv[1:]))
