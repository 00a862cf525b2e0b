"""The changes of tests/mutants.txt, and where in the sources they are."""

import re
import sys

import source_tree
from source_tree import ROOT

LIST = ROOT / "tests/mutants.txt"
# What tests the product is not product, nor is what only uses it.
NOT_PRODUCT = ("tests/", "interop/", "bench/", "examples/")


class Mutant:
    """One change: a piece of source with [-what is taken out-] and, unless it only goes, {+what comes in its place+}."""

    def __init__(self, row):
        number, self.file, text = row.split(None, 2)
        self.number = int(number)
        marks = re.fullmatch(r"(.*?)\[-(.*?)-\](?:\{\+(.*?)\+\})?(.*)", text)
        if not marks:
            sys.exit(f"mutant {number}: no [-...-] that could be read")
        self.before, self.old, self.new, self.after = (part or "" for part in marks.groups())

    def find(self, texts):
        """The places in the sources, as path and span. White space does not count, so that formatting and line ends do
        not matter; nor does the file's folder."""
        parts = [r"\s*".join(map(re.escape, re.findall(r"\w+|[^\w\s]", part)))
                 for part in (self.before, self.old, self.after)]
        pattern = re.compile(r"{}\s*({})\s*{}".format(*parts))
        return [(path, match.span(1)) for path, text in texts.items()
                if path == self.file or path.endswith("/" + self.file) for match in pattern.finditer(text)]

    def replacement(self, old):
        """Statements become statements, which must declare nothing that is used behind them, and expressions one."""
        chosen = f"vexelMutant({self.number})"
        if old.endswith(";"):
            return f"{{ if ({chosen}) {{ {self.new} }} else {{ {old} }} }}"
        return f"({chosen} ? ({self.new}) : ({old}))"


def product():
    """The product's sources, by path."""
    return {path: (ROOT / path).read_text(encoding="utf-8") for path in source_tree.files("*.cpp", "*.h")
            if not path.startswith(NOT_PRODUCT)}


def read(texts):
    """All changes, each with its path and span."""
    mutants = [Mutant(row) for row in LIST.read_text(encoding="utf-8").splitlines() if row[:1].isdigit()]
    faults, numbers, last = [], set(), ("", (0, 0))
    for mutant in mutants:
        places = mutant.find(texts)
        mutant.path, mutant.span = places[0] if places else ("", (0, 0))
        if len(places) != 1:
            faults.append(f"mutant {mutant.number}: stands {len(places)} times in {mutant.file}, not once")
        if mutant.number in numbers:
            faults.append(f"mutant {mutant.number}: the number is not free")
        numbers.add(mutant.number)
    for mutant in sorted(mutants, key=lambda it: (it.path, it.span)):
        if mutant.path == last[0] and mutant.span[0] < last[1][1]:
            faults.append(f"mutant {mutant.number}: another one has its place")
        last = mutant.path, mutant.span
    if faults:
        sys.exit("\n".join(faults))
    return mutants
