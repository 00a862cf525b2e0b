"""What the project's sources are and which of them include which."""

import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent
_INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]', re.MULTILINE)


def files(*patterns):
    """The project's files, tracked or about to be, that match the git patterns; relative to ROOT, sorted."""
    listing = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", *patterns],
        cwd=ROOT, check=True, capture_output=True, text=True).stdout
    return sorted(path for path in set(listing.split("\0")) if path and (ROOT / path).is_file())


def includes(path):
    """The includes of one file: pairs of the name as written and the project's file, None for a foreign one."""
    found = []
    for bracket, name in _INCLUDE.findall((ROOT / path).read_text(encoding="utf-8")):
        beside = [(ROOT / path).parent] if bracket == '"' else []
        candidates = [base / name for base in (*beside, ROOT, ROOT / "tests", ROOT / "include")]
        target = next((candidate for candidate in candidates if candidate.is_file()), None)
        found.append((name if bracket == "<" else f'"{name}"', str(target.resolve().relative_to(ROOT)) if target else None))
    return found


def closure(path, graph):
    """`path` and all project files that it includes, directly or not; `graph` caches the includes by file."""
    seen, waiting = set(), [path]
    while waiting:
        current = waiting.pop()
        if current in seen:
            continue
        seen.add(current)
        if current not in graph:
            graph[current] = [target for _, target in includes(current) if target]
        waiting.extend(graph[current])
    return sorted(seen)
