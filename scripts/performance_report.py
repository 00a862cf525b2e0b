#!/usr/bin/python3
"""Measures how cost grows with the number of items, and writes docs/performance.md with its plots.

  scripts/performance_report.py ROWS [MOST]

ROWS is what the benchmarks wrote for --rows; MOST bounds the number of items, for a quicker look. scripts/bench
--report calls this; the programs are built by then.
"""

import math
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCS = ROOT / "docs" / "performance"
CURVES = ROOT / "build/release/bin/bench_curves.exe"
ACTIONS = {
    "open": "Open",
    "list": "Open and list all",
    "read": "Open and read one stream",
    "change": "Open, change one stream and save",
    "copy": "Open and copy into a new package",
}
PACKAGES = [100, 1000, 10_000, 100_000, 1_000_000]
COMPOUND_FILES = [100, 1000, 10_000]  # the system makes larger ones in minutes
COPIED_AT_MOST = 100_000
THREADS = [1, 2, 4, 8]
MOST = int(sys.argv[2]) if len(sys.argv) > 2 else max(PACKAGES)
COLOURS = ["a", "b", "c", "d"]
GROWTH_LIMIT = 1.3
# What a row should come to and does not, and where the time goes. Measured by hand; look again when the row changes.
WISHES = [
    (
        "open and list 100,000 items",
        "1.5",
        "Of 70 ms the peer's work takes 31: 19 for unpacking the header, 11 for the engine's own lists. Ours adds 4 for "
        "looking at the header before the engine does, 13 for a map of items with their names, 8 for what the items "
        "tell and the directories, 4 for going over them, and 9 for giving all back. The map and its names alone, made, "
        "walked and given back, take 23, so that one thread cannot come below 1.8. A third of all samples are in "
        "Linux's kernel, which gives and takes pages.",
    ),
    (
        "read the database of 10,000 items, not packed",
        "1.6",
        "The header is looked at before the engine reads it, which takes 0.5 ms where nothing has to be unpacked; taking "
        "memory for it and giving it back takes 0.2 ms more.",
    ),
    (
        "save 30 MB with one changed item of 10,000",
        "3",
        "Of 49 ms the engine's copying of 10,000 small parts takes 20, writing them to the file 10, bringing the file "
        "to the disk 12, which the peer leaves out, reading the new file's lists 4. A thread that writes while the "
        "next part is copied made it slower, 42 instead of 30 ms for copying and writing, and one that also brings "
        "each 8 MB to the disk slower still, 75 ms.",
    ),
    (
        "open a package and read its 5,000 streams, against a new decoder for each",
        "0.6",
        "Two thirds of our time are the decoding itself, which takes as long on the other side.",
    ),
    (
        "pack 1,000 items of 2 KiB on all processors, peer on one",
        "0.56",
        "The engine's thread reads each item again for its checksum and writes it, which one processor does alone.",
    ),
]


def wine(*arguments):
    command = [str(ROOT / "scripts/wine"), *map(str, arguments)]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def of_windows(path):
    return f"Z:{path}"


def measured(action, number, path):
    seconds, memory, _ = wine(CURVES, action, number, of_windows(path)).split()
    return float(seconds), int(memory)


def timed(*command):
    """The median of the seconds that a program of this system takes; None where it fails."""
    times = []
    while len(times) < 9 and sum(times) < 3:
        start = time.perf_counter()
        if subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode != 0:
            return None
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def foreign(archive, count, folder):
    """What 7zz and bsdtar take for the same on the same package."""
    middle = f"Storage {count // 200}/Stream {count // 2 % 100}"
    changed = folder / middle
    changed.parent.mkdir(parents=True, exist_ok=True)
    changed.write_bytes(os.urandom(200))
    yield "7zz", "list", timed("7zz", "l", "-ba", str(archive))
    yield "7zz", "read", timed("7zz", "e", "-so", str(archive), middle)
    yield "bsdtar", "list", timed("bsdtar", "-tf", str(archive))
    yield "bsdtar", "read", timed("bsdtar", "-xOf", str(archive), middle)
    os.chdir(folder)
    yield "7zz", "change", timed("7zz", "u", "-mx=1", "-ms=off", "-uq0", str(archive), middle)


def curves(folder):
    """Points by action or memory, then by who did it: a list of pairs of a number of items and a figure."""
    result = {}

    def add(plot, who, count, value):
        if value is not None:
            result.setdefault(plot, {}).setdefault(who, []).append((count, value))

    for form, suffix, counts in (("package", ".7z", PACKAGES), ("compound", ".cfb", COMPOUND_FILES)):
        who = "package" if form == "package" else "compound file"
        for count in (count for count in counts if count <= MOST):
            path = folder / f"{form}-{count}{suffix}"
            wine(CURVES, "make", form, count, of_windows(path))
            for action in ACTIONS:
                if action == "copy" and count > COPIED_AT_MOST:
                    continue
                seconds, memory = measured(action, count, path)
                add(action, who, count, seconds)
                if action in ("list", "change"):
                    add("memory", f"{who}, {action}", count, memory)
            if form == "package":
                for program, action, seconds in foreign(path, count, folder):
                    add(action, program, count, seconds)
            path.unlink()
            print(f"report: {who} of {count} items", flush=True)
    return result


STYLE = """
svg { background: #fff; font: 13px sans-serif }
text { fill: #222 } .axis { stroke: #888 } .grid { stroke: #e4e4e4 }
.a { stroke: #0b61c4; fill: #0b61c4 } .b { stroke: #b3420a; fill: #b3420a }
.c { stroke: #2b7a2b; fill: #2b7a2b } .d { stroke: #7a3a9a; fill: #7a3a9a }
path { fill: none; stroke-width: 2 } path.a, path.b, path.c, path.d { fill: none }
@media (prefers-color-scheme: dark) {
  svg { background: #16181c } text { fill: #ddd } .axis { stroke: #777 } .grid { stroke: #2c2f36 }
  .a { stroke: #6cb2ff; fill: #6cb2ff } .b { stroke: #ff9d5c; fill: #ff9d5c }
  .c { stroke: #7fd07f; fill: #7fd07f } .d { stroke: #cf9bee; fill: #cf9bee }
}
"""


def power(exponent, unit):
    if unit == "s":
        for step, name in ((0, "s"), (-3, "ms"), (-6, "µs")):
            if exponent >= step:
                return f"{10 ** (exponent - step):g} {name}"
    if unit == "bytes":
        for step, name in ((9, "GB"), (6, "MB"), (3, "kB")):
            if exponent >= step:
                return f"{10 ** (exponent - step):g} {name}"
    return f"{10 ** exponent:g}" if exponent < 4 else f"{10 ** exponent:,}"


def plot(name, title, series, unit):
    """Both axes by powers of ten."""
    width, height, left, top, bottom, right = 640, 380, 70, 40, 330, 460
    points = [point for line in series.values() for point in line]
    lowest_x, highest_x = 2, max(3, math.ceil(math.log10(max(x for x, _ in points))))
    lowest = math.floor(math.log10(min(y for _, y in points)))
    highest = max(lowest + 1, math.ceil(math.log10(max(y for _, y in points))))

    def place(x, y):
        return (
            left + (math.log10(x) - lowest_x) / (highest_x - lowest_x) * (right - left),
            bottom - (math.log10(y) - lowest) / (highest - lowest) * (bottom - top),
        )

    out = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" role="img">',
        f"<title>{title}</title><style>{STYLE}</style>",
        f'<text x="{left}" y="22">{title}</text>',
    ]
    for exponent in range(lowest, highest + 1):
        _, y = place(100, 10.0**exponent)
        out.append(f'<line class="grid" x1="{left}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}"/>')
        out.append(f'<text x="{left - 8}" y="{y + 4:.1f}" text-anchor="end">{power(exponent, unit)}</text>')
    for exponent in range(lowest_x, highest_x + 1):
        x, _ = place(10**exponent, 10.0**lowest)
        out.append(f'<line class="grid" x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{bottom}"/>')
        out.append(f'<text x="{x:.1f}" y="{bottom + 18}" text-anchor="middle">{10**exponent:,}</text>')
    out.append(f'<path class="axis" d="M{left} {top}V{bottom}H{right}"/>')
    out.append(f'<text x="{(left + right) / 2}" y="{bottom + 38}" text-anchor="middle">items</text>')
    for index, (who, line) in enumerate(series.items()):
        colour = COLOURS[index % len(COLOURS)]
        places = [place(x, y) for x, y in line]
        path = "L".join(f"{x:.1f} {y:.1f}" for x, y in places)
        out.append(f'<path class="{colour}" d="M{path}"/>')
        out += [f'<circle class="{colour}" cx="{x:.1f}" cy="{y:.1f}" r="3"/>' for x, y in places]
        row = top + 16 + 22 * index
        out.append(f'<rect class="{colour}" x="{right + 18}" y="{row - 9}" width="10" height="10"/>')
        out.append(f'<text x="{right + 34}" y="{row}">{who}</text>')
    out.append("</svg>")
    (DOCS / f"{name}.svg").write_text("\n".join(out) + "\n", encoding="utf-8")


def in_words(seconds):
    for size, name in ((1, "s"), (1e-3, "ms"), (1e-6, "µs")):
        if seconds >= size:
            return f"{seconds / size:.3g} {name}"
    return f"{seconds * 1e9:.3g} ns"


def table(rows):
    """The rows with a peer, and after them those that were only measured."""
    lines = ["| work | ours | peer | ratio | limit | halves differ by | |", "|---|---|---|---|---|---|---|"]
    alone = ["| work | median |", "|---|---|"]
    for row in rows:
        name, ours, peer, limit, difference, verdict = row.rstrip("\n").split("\t")
        if float(peer) == 0:
            alone.append(f"| {name} | {in_words(float(ours))} |")
            continue
        ratio = float(ours) / float(peer)
        judged = verdict.strip() or "within"
        lines.append(
            f"| {name} | {in_words(float(ours))} | {in_words(float(peer))} | {ratio:.2f} | {float(limit):.2f} "
            f"| {float(difference):.2f} | {judged} |"
        )
    return "\n".join(lines), "\n".join(alone)


def growth_table(figures):
    """How much dearer an item is among 100,000 than among 1,000."""
    lines = ["| work | an item of 1,000 | an item of 100,000 | growth | limit |", "|---|---|---|---|---|"]
    for action in ("open", "list", "copy"):
        cost = {count: seconds / count for count, seconds in figures[action]["package"]}
        if 100_000 in cost:
            growth = cost[100_000] / cost[1000]
            lines.append(
                f"| {ACTIONS[action].lower()} | {in_words(cost[1000])} | {in_words(cost[100_000])} | {growth:.2f} "
                f"| {GROWTH_LIMIT} |"
            )
    return "\n".join(lines)


def wishes():
    return "\n".join(f"- **{row}** should come to {wanted}. {why}" for row, wanted, why in WISHES)


def memory_table(large):
    lines = ["| work | seconds | peak above the start |", "|---|---|---|"]
    for threads, (seconds, memory) in large.items():
        lines.append(f"| pack one item of 64 MiB, threads: {threads} | {seconds:.1f} | {memory / 2**20:.1f} MiB |")
    return "\n".join(lines)


def machine():
    lines = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines()
    model = next((line.split(":", 1)[1].strip() for line in lines if line.startswith("model name")), "unknown")
    version = subprocess.run(["/usr/lib/wine/wine64", "--version"], capture_output=True, text=True).stdout.strip()
    return f"{model}, {os.cpu_count()} processors, Linux {platform.release()}, {version}"


def main():
    rows = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8").splitlines()
    DOCS.mkdir(exist_ok=True)
    load_before = os.getloadavg()[0]
    with tempfile.TemporaryDirectory(dir=ROOT / "build") as scratch:
        folder = pathlib.Path(scratch)
        large = {threads: measured("pack", threads, folder / "none") for threads in THREADS}
        figures = curves(folder)
        os.chdir(ROOT)
    for action, title in ACTIONS.items():
        plot(action, title, figures[action], "s")
    plot("memory", "Memory that it adds at its peak", figures["memory"], "bytes")
    compared, alone = table(rows)
    at_100_000 = [
        f"- {who}: {value / count:.0f} bytes an item"
        for who, line in figures["memory"].items()
        for count, value in line
        if count == 100_000
    ]
    plots = "\n\n".join(
        f"![{title}](performance/{name}.svg)"
        for name, title in [*ACTIONS.items(), ("memory", "Memory against the number of items")]
    )
    page = f"""# Performance

Written by `scripts/bench --report`; do not edit. Measured on {time.strftime('%Y-%m-%d')} on {machine()}.
Load of the machine (processes that wanted a processor, mean of a minute): {load_before:.1f} when the plots were begun,
{os.getloadavg()[0]:.1f} when they were done. Above the number of processors the times of the wall clock are those of a
machine that does other things, too; ratios suffer less, for both sides run in turns.

## Against peers

Medians of at least 9 runs each, ours and the peer's in turns. What is noisy was not judged: the two halves of the run
differ by more than what separates the ratio from its limit.

{compared}

### What should be faster

{wishes()}

## On their own

{alone}

## Against the number of items

Streams of 200 bytes, 100 in each storage. 7zz and bsdtar are this system's own programs and run without Wine; their
times include the start of a process, ours do not.

{plots}

{growth_table(figures)}

## Memory

What listing and saving a package of 100,000 items adds to the peak of the working set:

{chr(10).join(at_100_000)}

One large item:

{memory_table(large)}
"""
    (ROOT / "docs" / "performance.md").write_text(page, encoding="utf-8")


if __name__ == "__main__":
    main()
