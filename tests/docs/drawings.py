#!/usr/bin/env python3
"""Checks that each drawing of docs/drawings was made from its present source.

usage: drawings.py ROOT
"""
import hashlib
import pathlib
import re
import sys

STAMP = re.compile(r"made by scripts/drawings from ([0-9a-f]{64})")


def faults(folder):
    sources = {source.stem: source for source in folder.glob("*.dot")}
    drawings = {drawing.stem: drawing for drawing in folder.glob("*.svg")}
    if not sources:
        yield f"{folder} holds no drawings"
    for name in sorted(sources.keys() ^ drawings.keys()):
        yield f"{name} has a source or a drawing, but not both"
    for name in sorted(sources.keys() & drawings.keys()):
        stamp = STAMP.search(drawings[name].read_text())
        if not stamp or stamp[1] != hashlib.sha256(sources[name].read_bytes()).hexdigest():
            yield f"{name}.svg is out of date: run scripts/drawings"


def main():
    wrong = list(faults(pathlib.Path(sys.argv[1]) / "docs" / "drawings"))
    if wrong:
        sys.exit("\n".join(wrong))
    print("every drawing is up to date")


if __name__ == "__main__":
    main()
