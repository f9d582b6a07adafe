#!/usr/bin/env python3
"""Calls go down: fails when a product source includes a header of a layer
above its own, or a module's static library links one.

The layers, bottom up, are those of docs/architecture.md ("Layers").
Directories on one row are siblings and include neither each other. A file
may include headers of its own directory and of every layer below it; an
upward call goes through a callback the upper module registers at start-up,
never through an #include. Prints each offending file and line.
"""
import os
import re
import sys

LAYERS = [
    ["platform"],
    ["util"],
    ["feed", "http"],
    ["config"],
    ["refresh"],
    ["client"],
    ["daemon", "configd"],
    ["tools"],
]
RANK = {d: i for i, row in enumerate(LAYERS) for d in row}
SOURCE = (".cpp", ".h")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"/]+)/')
LIBS = re.compile(r"kelp_module\((\w+)(.*?)\)", re.S)


def allowed(own, other):
    return other == own or other not in RANK or RANK[other] < RANK[own]


def check_includes(root, own, problems):
    for folder, dirs, files in os.walk(os.path.join(root, own)):
        dirs.sort()
        for name in sorted(f for f in files if f.endswith(SOURCE)):
            path = os.path.join(folder, name)
            with open(path, encoding="utf-8", errors="replace") as f:
                for n, line in enumerate(f, 1):
                    m = INCLUDE.match(line)
                    if m and not allowed(own, m.group(1)):
                        rel = os.path.relpath(path, root)
                        problems.append(f"{rel}:{n}: {own}/ includes {m.group(1)}/, a layer not below it: {line.strip()}")


def check_libraries(root, own, problems):
    path = os.path.join(root, own, "CMakeLists.txt")
    if not os.path.exists(path):
        return
    with open(path, encoding="utf-8") as f:
        text = f.read()
    for m in LIBS.finditer(text):
        for lib in re.findall(r"\bkelp_(\w+)", m.group(2)):
            if not allowed(own, lib):
                n = text.count("\n", 0, m.start()) + 1
                rel = os.path.relpath(path, root)
                problems.append(f"{rel}:{n}: kelp_{own} links kelp_{lib}, a layer not below it")


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    problems = []
    for own in RANK:
        check_includes(root, own, problems)
        check_libraries(root, own, problems)
    for p in problems:
        print(p)
    if problems:
        print(f"{len(problems)} upward dependencies; see docs/architecture.md, \"Layers\"", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
