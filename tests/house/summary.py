"""Says in one line what came of the tests whose results CTest has written as JUnit XML.

usage: summary.py RESULTS

Ends with 1 unless all of them have passed or were skipped.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree

# What a test prints that skips itself: GoogleTest's way, and that of a plain program.
REASONS = (re.compile(r": Skipped\n(?!\n)(.+)"), re.compile(r"^skipped: (.+)", re.MULTILINE))


def reason_of(case):
    output = case.findtext("system-out", default="")
    found = (pattern.search(output) for pattern in REASONS)
    return next((match[1] for match in found if match), "no reason given")


def was_skipped(case):
    """By itself: a test whose preparation has failed differs from it in the cause only."""
    element = case.find("skipped")
    return element is not None and element.get("message", "").startswith("SKIP_")


def summary_of(cases):
    """The line, and whether nothing is wrong."""
    names = {"passed": [], "failed": [], "skipped": [], "disabled": []}
    for case in cases:
        name = case.get("name")
        if case.get("status") == "run":
            names["passed"].append(name)
        elif case.get("status") == "disabled":
            names["disabled"].append(name)
        elif was_skipped(case):
            names["skipped"].append(f"{name} ({reason_of(case)})")
        else:
            names["failed"].append(name)

    passed = len(names["passed"])
    all_of = "All " if passed == len(cases) > 1 else ""
    parts = [f"{all_of}{passed} {'test' if passed == 1 else 'tests'} passed"]
    for kind in ("skipped", "disabled", "failed"):
        if names[kind]:
            parts.append(f"{len(names[kind])} {kind}: {', '.join(names[kind])}")
    return "; ".join(parts) + ".", bool(cases) and not names["failed"]


def main():
    cases = list(ElementTree.parse(sys.argv[1]).getroot().iter("testcase"))
    line, is_good = summary_of(cases)
    print(line)
    return 0 if is_good else 1


if __name__ == "__main__":
    sys.exit(main())
