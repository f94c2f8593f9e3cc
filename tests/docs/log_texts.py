#!/usr/bin/env python3
"""Holds docs/failures.md against the texts of the libraries, in both directions.

usage: log_texts.py ROOT

Every text for people in the sources stands in a code span of the page. Every code span in the first
column of the page's table of texts consists of texts of the sources, with … for what varies.
"""
import pathlib
import re
import sys

FOLDERS = ["scheduler", "supervision", "worker", "support", "system", "system/linux"]
COMMENT = re.compile(r"(?m)//.*$")
NO_TEXT = re.compile(r"(?m)^#include.*$|static_assert\([^;]*\);")
LITERAL = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
FOR_PEOPLE = re.compile(r"(?=.*\s)(?=.*[A-Za-z]{3})")
HEADING = "## What does this text mean?"
CODE = re.compile(r"(`+)(?!`)(.*?)(?<!`)\1(?!`)")
VARYING = "…"


def literals(root):
    """Every string literal of the libraries' sources, with the file that it stands in."""
    for folder in FOLDERS:
        for file in sorted([*(root / folder).glob("*.cpp"), *(root / folder).glob("*.h")]):
            source = NO_TEXT.sub("", COMMENT.sub("", file.read_text()))
            for literal in LITERAL.findall(source):
                yield file.relative_to(root), literal


def code_spans(text):
    return [match[2].strip() for match in CODE.finditer(text)]


def looked_up(page):
    """The texts in the first column of the table."""
    section = page.partition(HEADING)[2].partition("\n## ")[0]
    rows = [line for line in section.splitlines() if line.startswith("| `")]
    return [text for row in rows for text in code_spans(row.split(" | ")[0])]


def pieces(text):
    return [piece.strip() for piece in text.split(VARYING) if piece.strip()]


def faults(page, sources):
    """`sources` are pairs of a file and a literal."""
    spans = code_spans(page)
    for file, literal in sources:
        if FOR_PEOPLE.match(literal) and not any(literal.strip() in span for span in spans):
            yield f"{file}: \"{literal}\" is not explained"
    texts = looked_up(page)
    if not texts:
        yield f"there is no table under \"{HEADING}\""
    for text in texts:
        for piece in pieces(text):
            if not any(piece in literal for _, literal in sources):
                yield f"docs/failures.md: \"{piece}\" of \"{text}\" is in no source"


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / "docs" / "failures.md").read_text()
    wrong = list(faults(page, list(literals(root))))
    if wrong:
        sys.exit("\n".join(wrong))
    print(f"{len(looked_up(page))} texts: the page and the sources agree")


if __name__ == "__main__":
    main()
