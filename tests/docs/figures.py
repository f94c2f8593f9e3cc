#!/usr/bin/env python3
"""Checks that a figure shown on the front page stands on the page that measures it.

usage: figures.py ROOT

In a row of a table in README.md that links to a page, every number in bold, and every one with a
unit of time, has to be on that page.
"""
import pathlib
import re
import sys

ROW = re.compile(r"^\| (?P<text>.*\*\*.*) \| .*\]\((?P<page>[^)#]+)[^)]*\).*\|$", re.MULTILINE)
FIGURE = re.compile(r"(?<![\w.])(\d[\d .]*\d|\d)(?= ?(?:\*\*|ms\b|µs\b| jobs\b| of them\b))")


def figures(root):
    """The pairs of a figure and the page that has to have it."""
    for row in ROW.finditer((root / "README.md").read_text()):
        for figure in FIGURE.findall(row["text"]):
            yield figure, row["page"]


def faults(root):
    for figure, page in figures(root):
        if not re.search(rf"(?<![\d.]){re.escape(figure)}(?![\d.]*\d)", (root / page).read_text()):
            yield f"README.md: {figure} is not in {page}"


def main():
    root = pathlib.Path(sys.argv[1])
    wrong = list(faults(root))
    shown = len(list(figures(root)))
    if wrong or not shown:
        sys.exit("\n".join(wrong) or "README.md shows no figure")
    print(f"{shown} figures: the pages they are taken from have them")


if __name__ == "__main__":
    main()
