"""Checks the shape of the source tree: layers include only downwards, nothing includes in a circle, every test is
registered, and the documents name files, classes and functions that exist.

  tree_check.py BUILD_DIRECTORY
"""

import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "scripts"))
import source_tree  # noqa: E402

# Bottom to top. A layer includes only itself and what stands below it.
LAYERS = ["framework", "base", "diagnostics", "paths", "io", "archive", "storage", "tools"]
# These stand side by side.
NEIGHBOURS = {"paths", "io"}

# The rooms of a large layer, bottom to top as well.
ROOMS = {"storage": ["tree", "compound", "package", "handles", "documents", "properties", "salvage"]}

# The layer that implements each public header.
PUBLIC = "include/vexel/"
HEADER_LAYERS = {
    "framework": ["export.h", "flag_set.h", "framework.h"],
    "diagnostics": ["diagnostics.h"],
    "paths": ["cipher.h", "hash.h", "path_name.h", "paths.h", "temp_files.h"],
    "io": ["byte_streams.h", "com.h", "files.h", "ini.h", "memory_streams.h", "strings.h",
           "sub_stream.h"],
    "archive": ["archive.h"],
    "storage": ["compressed_stream.h", "copying.h", "open_package.h", "properties.h", "salvage.h",
                "storage.h"],
}


def layer_of(path):
    """The layer's place in LAYERS; None for tests and the like, which may use everything."""
    if path.startswith(PUBLIC):
        name = path.removeprefix(PUBLIC)
        layer = next((layer for layer, headers in HEADER_LAYERS.items() if name in headers), None)
        if layer is None:
            raise ValueError(f"{path}: name its layer in HEADER_LAYERS of tests/tree_check.py")
        return LAYERS.index(layer)
    folder = path.split("/")[0]
    return LAYERS.index(folder) if folder in LAYERS else None


def room_of(path):
    """The room's place in its layer; None for a layer without rooms."""
    layer, room, *_ = path.split("/")
    return ROOMS[layer].index(room) if layer in ROOMS else None


def check_rooms(graph):
    for path, included in graph.items():
        for name, target in included:
            if target and path.split("/")[0] == target.split("/")[0] in ROOMS and room_of(target) > room_of(path):
                yield f"{path}: {name} stands above it"


def check_layers(graph):
    for path, included in graph.items():
        try:
            own = layer_of(path)
            for name, target in included:
                if target is None:
                    if name.startswith('"') or name.startswith("vexel/"):
                        yield f"{path}: {name} does not exist"
                    continue
                other = layer_of(target)
                if own is None:
                    continue
                if other is None:
                    yield f"{path}: {name} is not part of the library"
                elif other > own:
                    yield f"{path}: {name} stands above it"
                elif other != own and {LAYERS[own], LAYERS[other]} == NEIGHBOURS:
                    yield f"{path}: {name} stands beside it"
                elif LAYERS[own] == "tools" and LAYERS[other] not in ("base", "tools") and not target.startswith(PUBLIC):
                    yield f"{path}: {name} is internal; programs see only the public headers"
                elif path.startswith(PUBLIC) and not target.startswith(PUBLIC):
                    yield f"{path}: {name} is internal and would not be installed"
        except ValueError as fault:
            yield str(fault)


def check_circles(graph):
    done, on_path = set(), []

    def visit(path):
        if path in on_path:
            yield "circle: " + " > ".join([*on_path[on_path.index(path):], path])
            return
        if path in done:
            return
        on_path.append(path)
        for _, target in graph.get(path, []):
            if target:
                yield from visit(target)
        on_path.pop()
        done.add(path)

    for path in graph:
        yield from visit(path)


def check_tests(build):
    listing = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], check=True, capture_output=True)
    registered = {test["name"] for test in json.loads(listing.stdout)["tests"]}
    for path in source_tree.files("tests/*_test.cpp", "interop/*_test.py"):
        parts = pathlib.PurePath(path)
        if f"{parts.parent.name}.{parts.stem}" not in registered:
            yield f"{path}: not registered with ctest"


def named_in(text):
    """The classes and functions that a document names in code quotes: `Class::function`, `function()`, and single
    names with a capital inside, which are no words of a sentence."""
    text = re.sub(r"```.*?```", "", text, flags=re.DOTALL)
    for quoted in re.findall(r"`([^`\n]+)`", text):
        name = quoted.removesuffix("()")
        if re.fullmatch(r"\w+(::\w+)+", name):
            yield name
        elif re.fullmatch(r"[A-Za-z_]\w*", name) and (name != quoted or re.search(r"[a-z][A-Z]", name)):
            yield name


def check_names():
    sources = [re.sub(r"//.*", "", (ROOT / path).read_text(encoding="utf-8"))
               for path in source_tree.files("*.h", "*.cpp", "*.py", "*.cmake")]
    words = [set(re.findall(r"\w+", text)) for text in sources]

    def exists(name):
        *scope, last = name.split("::")
        if not scope:
            return any(last in known for known in words)
        # Defined as it is written, or in the class's own text.
        owner = re.compile(rf"\b(class|struct|enum|namespace)\b[^;{{]*\b{scope[-1]}\b")
        return any(f"{scope[-1]}::{last}" in text or (last in known and owner.search(text))
                   for text, known in zip(sources, words))

    for document in source_tree.files("*.md"):
        text = (ROOT / document).read_text(encoding="utf-8")
        for name in sorted(set(named_in(text))):
            if not name.startswith("std::") and not exists(name):
                yield f"{document}: names {name}, which no source has"


def check_reading_order():
    page = "docs/guide/headers.md"
    order = (ROOT / page).read_text(encoding="utf-8")
    for header in source_tree.files(PUBLIC + "*.h"):
        if f"`{header.removeprefix(PUBLIC)}`" not in order:
            yield f"{page}: {header} has no place in it"


def check_documents():
    folders = {path.split("/")[0] for path in source_tree.files() if "/" in path}
    for document in source_tree.files("*.md"):
        text = (ROOT / document).read_text(encoding="utf-8")
        # A path in code quotes, without placeholders.
        for path in re.findall(r"`([\w.-]+(?:/[\w.-]+)+/?)[ `]", text):
            if path.split("/")[0] in folders and not (ROOT / path).exists():
                yield f"{document}: names {path}, which does not exist"


def main(build):
    sources = source_tree.files("*.h", "*.cpp")
    graph = {path: source_tree.includes(path) for path in sources}
    faults = [*check_layers(graph), *check_rooms(graph), *check_circles(graph), *check_tests(build),
              *check_documents(), *check_names(), *check_reading_order()]
    print("\n".join(faults) or f"{len(sources)} sources in order")
    return 1 if faults or not sources else 0


sys.exit(main(sys.argv[1]))
