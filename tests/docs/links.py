#!/usr/bin/env python3
"""Checks that every relative link and picture of the Markdown pages leads to a file or a heading.

usage: links.py ROOT
"""
import pathlib
import re
import sys

FENCE = re.compile(r"^ *(```|~~~)")
HEADING = re.compile(r"^#{1,6} +(.+?) *$")
CODE = re.compile(r"(`+)(?!`).*?(?<!`)\1(?!`)")
LINK = re.compile(r"\[[^][]*\]\(([^()\s]+)\)")
ELSEWHERE = re.compile(r"[a-z]+:")


def prose(page):
    """The lines of a page, with blank ones in place of code."""
    is_code = False
    for line in page.read_text().splitlines():
        is_fence = bool(FENCE.match(line))
        yield "" if is_code or is_fence else line
        is_code ^= is_fence


def anchors(page):
    """The names that a forge gives to the headings of a page."""
    names = set()
    for line in prose(page):
        heading = HEADING.match(line)
        if heading:
            text = re.sub(r"[^\w\- ]", "", LINK.sub("", heading[1]).lower()).replace(" ", "-")
            number = 0
            while (name := f"{text}-{number}" if number else text) in names:
                number += 1
            names.add(name)
    return names


def faults(page):
    for number, line in enumerate(prose(page), 1):
        for target in LINK.findall(CODE.sub("code", line)):
            path, _, anchor = target.partition("#")
            file = page.parent / path if path else page
            if ELSEWHERE.match(target):
                continue
            if not file.exists():
                yield f"{page}:{number}: {target} leads nowhere"
            elif anchor and anchor not in anchors(file):
                yield f"{page}:{number}: {target} names no heading of that page"


def pages(root):
    return sorted([*root.glob("*.md"), *root.glob("docs/**/*.md"), *root.glob("examples/**/*.md")])


def main():
    found = pages(pathlib.Path(sys.argv[1]))
    wrong = [fault for page in found for fault in faults(page)]
    if wrong or not found:
        sys.exit("\n".join(wrong) or "there are no pages")
    print(f"{len(found)} pages: every link leads somewhere")


if __name__ == "__main__":
    main()
