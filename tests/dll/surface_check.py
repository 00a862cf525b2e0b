"""Holds what the DLLs export and import against the list in surface.txt, and looks at how far the system's protections
reach: every module can be loaded anywhere, also above 4 GiB, and holds nothing that can be both written and executed.

  surface_check.py BIN_DIRECTORY OBJDUMP [--write | --protections]

Exported classes are listed with the names of their public and protected members, inline ones excepted, and by what
else the compiler makes for them; of the imports the compiler's runtime is left out, which differs with its options. With --write the list is made
anew; look at what changes in it. With --protections nothing is compared: clang exports other names than GCC, no typeinfo
among them.
"""

import difflib
import pathlib
import re
import subprocess
import sys

LIST = pathlib.Path(__file__).with_name("surface.txt")
HEADERS = LIST.parents[2] / "include" / "vexel"
DLLS = ["vexelstorage.dll", "vxdiagnostics.dll", "vxframework.dll"]

# What the application's own diagnostics library has: the DLL must not ask for more.
DIAGNOSTICS = {"VxLog_Write", "VxLog_WriteV", "VxLog_WriteWV", "VxHResultToVexelError"}


def tables(objdump, dll):
    """The names exported, and those imported by the DLL they come from."""
    text = subprocess.run([objdump, "-p", dll], check=True, capture_output=True, text=True).stdout
    exported = text.partition("[Ordinal/Name Pointer] Table")[2].partition("\n\n")[0]
    imported = {}
    for part in text.split("DLL Name: ")[1:]:
        name, _, rest = part.partition("\n")
        imported[name] = re.findall(r"^\s+[0-9a-f]+\s+\d+\s+(\S+)", rest.partition("\n\n")[0], re.M)
    return re.findall(r"^\s*\[\s*\d+\] (?:\+base\[\s*\d+\]\s+[0-9a-f]+ )?(\S+)", exported, re.M), imported


def accessible():
    """The functions' names in the public headers, but for those of private members and of structures in them."""
    headers = "\n".join(path.read_text(encoding="utf-8") for path in sorted(HEADERS.glob("*.h")))
    headers = re.sub(r"//.*", "", headers)
    headers = re.sub(r"^( *)private:\n.*?(?=^\1(?:public|protected):|^\1};)", "", headers, flags=re.M | re.S)
    return set(re.findall(r"(~?\w+)(?:\(|;| =)", headers))


def readable(names, known):
    """One line a class, or for all that belongs to none, with what is exported of it."""
    plain = subprocess.run(["c++filt"], input="\n".join(names), check=True, capture_output=True, text=True).stdout
    owners = {}
    for name in plain.splitlines():
        made, owner = re.fullmatch(r"(vtable|typeinfo) for (.*)", name), ""
        name = re.sub(r"^(non-)?virtual thunk to ", "", name)
        if made:
            owner, member = made[2], f"({made[1]})"
        else:
            whole = re.sub(r"\[abi:\w+\]|(?<!operator)\(.*", "", name)
            owner, _, member = whole.rpartition("::")
            if owner in ("", "Vexel", "vxio", "Vexel::Hash"):
                owner, member = "(no class)", whole
        if owner.startswith("std::"):
            continue  # the runtime's own, of which precompiled headers make the compiler export some
        if owner == "(no class)" or member.startswith(("(", "operator")) or member in known:
            owners.setdefault(owner, set()).add(member)
    return [f"    {owner}: {' '.join(sorted(members))}" for owner, members in sorted(owners.items())]


def unprotected(objdump, module):
    """What keeps the system from loading the module at a random place, or from telling its data and code apart."""
    header = subprocess.run([objdump, "-p", module], check=True, capture_output=True, text=True).stdout
    sections = subprocess.run([objdump, "-h", "-w", module], check=True, capture_output=True, text=True).stdout
    faults = [f"is linked without {flag}" for flag in ("DYNAMIC_BASE", "HIGH_ENTROPY_VA", "NX_COMPAT") if flag not in header]
    if int(re.search(r"ImageBase\s+([0-9a-f]+)", header)[1], 16) < 1 << 32:
        faults.append("prefers a place below 4 GiB")
    if int(re.search(r"([0-9a-f]+) Base Relocation Directory", header)[1], 16) == 0:
        faults.append("cannot be moved: it has no relocations")
    faults += [f"has code that can be written: {line.split()[1]}" for line in sections.splitlines()
               if "CODE" in line and "READONLY" not in line]
    return [f"{module.name} {fault}" for fault in faults]


def describe(folder, objdump):
    lines, faults, known = [], [], accessible()
    for dll in DLLS:
        exported, imported = tables(objdump, folder / dll)
        others = [f"    {other}" for other in sorted(imported) if not other.startswith("lib")]
        lines += [f"{dll} exports", *readable(exported, known), f"{dll} imports from", *others]
        excess = set(imported.get("vxdiagnostics.dll", [])) - DIAGNOSTICS
        if excess:
            faults.append(f"{dll} imports {', '.join(sorted(excess))}, which an application's library does not have")
    return lines, faults


def main(folder, objdump, *options):
    folder = pathlib.Path(folder)
    lines, faults = describe(folder, objdump)
    if "--write" in options:
        LIST.write_text("\n".join(lines) + "\n", encoding="utf-8")
    wanted = lines if "--protections" in options else LIST.read_text(encoding="utf-8").splitlines()
    faults += difflib.unified_diff(wanted, lines, "surface.txt", "the DLLs", lineterm="", n=0)
    for module in [*folder.glob("*.dll"), folder / "vexel.exe"]:
        faults += unprotected(objdump, module)
    print("\n".join(faults) or f"{len(lines)} lines agree")
    return 1 if faults else 0


sys.exit(main(*sys.argv[1:]))
