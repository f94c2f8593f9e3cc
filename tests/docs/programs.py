#!/usr/bin/env python3
"""Checks that the pages print programs to the letter.

usage: programs.py ROOT

A line `<!-- FILE -->` before a block of C++ says that the block is that file, and `<!-- part of FILE -->`
that its lines stand together in it. Such files are built and tested as examples.
"""
import pathlib
import re
import sys

import links

BLOCK = re.compile(r"^<!-- (part of )?(\S+\.\w+) -->\n```cpp\n(.*?)^```$", re.DOTALL | re.MULTILINE)
MARK = re.compile(r"^<!-- (?:part of )?\S+\.\w+ -->$", re.MULTILINE)


def faults(root, page):
    text = page.read_text()
    blocks = BLOCK.findall(text)
    if len(blocks) != len(MARK.findall(text)):
        yield f"{page}: a file is named without a block of C++ behind it"
    for part, name, shown in blocks:
        file = root / name
        program = file.read_text() if file.exists() else ""
        if not (f"\n{shown}" in f"\n{program}" if part else shown == program):
            yield f"{page}: does not show {name} as it is"


def main():
    root = pathlib.Path(sys.argv[1])
    pages = links.pages(root)
    wrong = [fault for page in pages for fault in faults(root, page)]
    shown = sum(len(BLOCK.findall(page.read_text())) for page in pages)
    if wrong or not shown:
        sys.exit("\n".join(wrong) or "no page shows a program")
    print(f"{shown} programs: the pages show them as they are")


if __name__ == "__main__":
    main()
