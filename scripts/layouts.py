#!/usr/bin/env python3
"""Puts the layout tables of the box headers into docs/file-format.md.

usage: scripts/layouts.py [--check]

The tables stand in the comments of the classes in src/. Between `<!-- layout src/mvhd.h -->` and
`<!-- end -->` the document repeats the head and the tables of every box of that header; --check
fails when it is not up to date, or when a header with tables is missing from it.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs" / "file-format.md"
BLOCK = re.compile(r"<!-- layout (\S+) -->\n.*?<!-- end -->", re.S)
# How the library writes a box is no matter of the file.
PATTERNS = re.compile(r" - (leaf|direct|constant|table|head and children|wrapper direct, .*)$")


def comments(path):
    """The comment before each class, as a list of lines without `///`."""
    lines = []
    for line in path.read_text(encoding="utf-8").splitlines():
        if line.startswith("///"):
            lines.append(line[3:].strip())
        else:
            if line.startswith("class ") and lines:
                yield lines
            lines = []


def as_code(text):
    return re.sub(r"'(\S{1,4}|url )'", r"`\1`", text)


def table(rows):
    """The rows with the rule behind the head that Markdown asks for."""
    cells = [[cell.strip() for cell in as_code(row).strip("|").split("|")] for row in rows]
    width = max(len(row) for row in cells)
    cells = [row + [""] * (width - len(row)) for row in cells]
    lines = ["| " + " | ".join(row) + " |" for row in cells]
    return "\n".join([lines[0], "|" + "---|" * width] + lines[1:])


def layout(lines):
    """Head and tables of one box in Markdown; nothing for a comment without a table."""
    end = lines.index("") if "" in lines else len(lines)
    head = PATTERNS.sub("", " ".join(lines[:end]))
    tables, rows = [], []
    for line in lines[end:] + [""]:
        if line.startswith("|"):
            rows.append(line)
        elif rows:
            if re.match(r"\| (entry )?(offset|tag)\b", rows[0]):  # not a drawing
                tables.append(table(rows))
            rows = []
    if not tables:
        return ""
    name, *facts = as_code(head).split(" - ")
    return "\n\n".join([f"**{name}** ({'; '.join(facts)})"] + tables) + "\n"


def layouts(path):
    return "\n".join(filter(None, map(layout, comments(path))))


def main():
    document = DOCUMENT.read_text(encoding="utf-8")
    fresh = BLOCK.sub(
        lambda block: f"<!-- layout {block[1]} -->\n{layouts(ROOT / block[1])}<!-- end -->", document)
    shown = set(BLOCK.findall(document))
    missing = [path.relative_to(ROOT).as_posix() for path in sorted((ROOT / "src").glob("*.h"))
               if layouts(path) and path.relative_to(ROOT).as_posix() not in shown]
    for path in missing:
        print(f"docs/file-format.md lacks the layouts of {path}")
    if "--check" not in sys.argv:
        DOCUMENT.write_text(fresh, encoding="utf-8")
    elif fresh != document:
        print("docs/file-format.md is not up to date: scripts/layouts.py")
        return 1
    return 1 if missing else 0


sys.exit(main())
