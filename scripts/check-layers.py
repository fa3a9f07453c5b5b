#!/usr/bin/env python3
"""Checks that every #include "..." of the source folders runs down the floors.

The folders stand on floors (docs/architecture.md, "Layers"): a file may include its own folder and
the folders its folder's row of ALLOWED names, nothing else. tests/, fuzz/ and bench/ are no floor
and may include anything; they are not read. The check also fails on circles of includes:
headers that include each other, and modules (a header with its source) of different folders
that need each other.

Usage: scripts/check-layers.py [REPOSITORY]   (default: the repository this script is in)
Exit status: 0 when everything is in order, 1 with the list of what is not.
"""
import os
import re
import sys

# Which folder may include which: the same table as docs/architecture.md's, which this script also
# checks against it. Each row names the folders below its own (and the one sideways step the
# provider takes into drift/, and the command line into exporter/); host/ is a program that no
# other folder includes.
ALLOWED = {
    "platform": [],
    "resources": ["platform"],
    "config": ["platform"],
    "timing": ["config", "platform"],
    "drift": ["timing", "config", "resources", "platform"],
    "host": ["timing", "config", "platform"],
    "provider": ["drift", "timing", "config", "platform"],
    "applet": ["provider", "drift", "timing", "config", "resources", "platform"],
    "exporter": ["applet", "provider", "drift", "timing", "config", "resources", "platform"],
    "cli": ["exporter", "applet", "provider", "drift", "timing", "config", "resources", "platform"],
}
SOURCE_SUFFIXES = (".h", ".cpp", ".inc", ".rc")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
DOC = "docs/architecture.md"
DOC_ROW = re.compile(r"^\|\s*`(\w+)/`\s*\|([^|]*)\|")


def source_files(root):
    for folder in ALLOWED:
        for base, _, names in os.walk(os.path.join(root, folder)):
            for name in sorted(names):
                if name.endswith(SOURCE_SUFFIXES):
                    yield os.path.relpath(os.path.join(base, name), root)


def includes(root, path):
    with open(os.path.join(root, path), encoding="utf-8", errors="replace") as f:
        for number, line in enumerate(f, 1):
            m = INCLUDE.match(line)
            if m:
                yield number, m.group(1)


def folder_of(path):
    return path.split("/", 1)[0]


def module_of(path):
    return os.path.splitext(path)[0]


def circles(graph):
    """The strongly connected parts of more than one node (Tarjan), each sorted."""
    index, low, on_stack, stack, found = {}, {}, set(), [], []
    counter = [0]

    def visit(v):
        index[v] = low[v] = counter[0]
        counter[0] += 1
        stack.append(v)
        on_stack.add(v)
        for w in sorted(graph.get(v, ())):
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on_stack:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            part = []
            while True:
                w = stack.pop()
                on_stack.discard(w)
                part.append(w)
                if w == v:
                    break
            if len(part) > 1:
                found.append(sorted(part))

    sys.setrecursionlimit(10000)
    for v in sorted(graph):
        if v not in index:
            visit(v)
    return found


def doc_table(root):
    """The table of docs/architecture.md: folder -> the folders it may include."""
    table = {}
    try:
        with open(os.path.join(root, DOC), encoding="utf-8") as f:
            for line in f:
                m = DOC_ROW.match(line)
                if m and m.group(1) in ALLOWED:
                    table[m.group(1)] = re.findall(r"`(\w+)/`", m.group(2))
    except OSError:
        pass
    return table


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    problems = []
    header_graph, module_graph = {}, {}
    for path in source_files(root):
        own = folder_of(path)
        for number, target in includes(root, path):
            if "/" not in target:
                target = os.path.join(os.path.dirname(path), target)   # a file beside this one
            other = folder_of(target)
            if other not in ALLOWED:
                continue   # generated files and other trees
            if other != own and other not in ALLOWED[own]:
                problems.append(f"{path}:{number}: includes {target}: {own}/ may include only "
                                f"{', '.join(f'{f}/' for f in [own] + ALLOWED[own])}")
            if not os.path.exists(os.path.join(root, target)):
                continue
            if path.endswith(".h") and target.endswith(".h"):
                header_graph.setdefault(path, set()).add(target)
            if module_of(target) != module_of(path):
                module_graph.setdefault(module_of(path), set()).add(module_of(target))

    for part in circles(header_graph):
        problems.append("headers that include each other: " + ", ".join(part))
    for part in circles(module_graph):
        if len({folder_of(m) for m in part}) > 1:
            problems.append("modules of different folders that include each other: " + ", ".join(part))

    documented = doc_table(root)
    for folder, allowed in ALLOWED.items():
        if sorted(documented.get(folder, ["(no row)"])) != sorted(allowed):
            problems.append(f"{DOC}: the row of {folder}/ names {', '.join(documented.get(folder, ['no row']))}; "
                            f"this check allows {', '.join(allowed) or 'nothing'}")

    if problems:
        print("Includes against the layering (docs/architecture.md, \"Layers\"):")
        for p in problems:
            print("  " + p)
        return 1
    print(f"layers: every include of {', '.join(f'{f}/' for f in ALLOWED)} runs down the floors")
    return 0


if __name__ == "__main__":
    sys.exit(main())
