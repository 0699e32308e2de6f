#!/usr/bin/env python3
"""Checks that all includes point one way: from the programs down to the codecs, never in a circle.

usage: scripts/arrows.py

Prints every include that points upwards and every circle of files, and fails when there is one.
docs/architecture.md shows the floors.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
# From the ground up. A file may include its own floor and those below it.
FLOORS = ["inc", "codec", "src", "repair", "recorder", "c", "tools"]
# Nobody includes these but themselves.
OUTSIDE = ["tests", "fuzz", "bench", "examples"]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
KX_INCLUDE = re.compile(r'^\s*#\s*include\s+<(kx_mp4/[^>]+)>', re.M)


def tracked():
    listed = subprocess.run(["git", "-C", ROOT, "ls-files", "*.h", "*.c", "*.cpp"], check=True,
                            capture_output=True, text=True).stdout.split()
    return sorted(path for path in listed if (ROOT / path).exists())


def resolve(path, name, files):
    """The tracked file that `path` means by `name`: beside it, in inc/, or the one of that name."""
    beside = (ROOT / path).parent / name
    for candidate in (beside, ROOT / "inc" / name, ROOT / "src" / name, ROOT / "codec" / name):
        if candidate.exists():
            return candidate.resolve().relative_to(ROOT).as_posix()
    found = [file for file in files if file.endswith("/" + name)]
    return found[0] if len(found) == 1 else None


def arrows():
    files = tracked()
    graph = {}
    for path in files:
        text = (ROOT / path).read_text(encoding="utf-8")
        names = INCLUDE.findall(text) + KX_INCLUDE.findall(text)
        graph[path] = {target for target in (resolve(path, name, files) for name in names) if target}
    return graph


def points_up(source, target):
    here, there = source.split("/")[0], target.split("/")[0]
    if here in OUTSIDE:
        return there in OUTSIDE and there not in (here, "examples")
    if there in OUTSIDE:
        return True
    return FLOORS.index(there) > FLOORS.index(here)


def circles(graph):
    """The first circle that a depth-first walk closes from each file."""
    done, found = set(), []

    def walk(path, trail):
        if path in trail:
            found.append(trail[trail.index(path):] + [path])
        elif path not in done:
            for target in sorted(graph.get(path, ())):
                walk(target, trail + [path])
            done.add(path)

    for path in graph:
        walk(path, [])
    return found


def main():
    graph = arrows()
    faults = [f"{source} includes {target}, which stands above it"
              for source, targets in graph.items() for target in sorted(targets)
              if points_up(source, target)]
    faults += ["a circle: " + " -> ".join(circle) for circle in circles(graph)]
    for fault in faults:
        print(fault)
    count = sum(map(len, graph.values()))
    print(f"{count} includes of {len(graph)} files, {len(faults)} of them wrong")
    return 1 if faults else 0


sys.exit(main())
