#!/usr/bin/env python3
"""Tests of the checks themselves: each finds what it is there for."""
import hashlib
import pathlib
import tempfile
import unittest

import drawings
import figures
import links
import log_texts
import programs


def folder_with(case, **files):
    """A folder that lives as long as the test; `a__md` names the file a.md."""
    folder = tempfile.TemporaryDirectory()
    case.addCleanup(folder.cleanup)
    root = pathlib.Path(folder.name)
    for name, text in files.items():
        (root / name.replace("__", ".")).write_text(text)
    return root


class Links(unittest.TestCase):
    def faults(self, text):
        root = folder_with(self, a__md=text, b__md="# Top\n## A `b` (c)?\n## Twice\n## Twice\n")
        return [fault.split(":", 1)[1] for fault in links.faults(root / "a.md")]

    def test_a_file_that_is_not_there_is_found(self):
        self.assertEqual(self.faults("x\n[y](c.md)"), ["2: c.md leads nowhere"])

    def test_a_heading_that_is_not_there_is_found(self):
        self.assertEqual(self.faults("[y](b.md#no)"), ["1: b.md#no names no heading of that page"])

    def test_good_links_and_links_elsewhere_pass(self):
        text = "# H\n[y](b.md) [y](b.md#a-b-c) [y](b.md#twice-1) [`y`](#h) [y](https://example.org)"
        self.assertEqual(self.faults(text), [])

    def test_code_is_no_link(self):
        self.assertEqual(self.faults("`[y](c.md)`\n```\n[y](c.md)\n```"), [])


class Figures(unittest.TestCase):
    def faults(self, readme, page):
        root = folder_with(self, README__md=readme, page__md=page)
        return list(figures.faults(root))

    def test_a_figure_that_its_page_has_passes(self):
        row = "| **2.10 ms**, 1 600 of them, of **7 jobs** | [with](page.md#x) |\n"
        self.assertEqual(self.faults(row, "2.10 and 1 600\n| 7 |\n"), [])

    def test_a_figure_that_its_page_no_longer_has_is_found(self):
        row = "| **2.10 ms** and 3 µs | [with](page.md) |\n"
        wrong = ["README.md: 2.10 is not in page.md", "README.md: 3 is not in page.md"]
        self.assertEqual(self.faults(row, "12.10, 2.101 and 3.5 µs\n"), wrong)


class LogTexts(unittest.TestCase):
    PAGE = log_texts.HEADING + "\n\n| `Too many (…) sheep` | warning | counts |\n\n## Other\n`one more`\n"
    SOURCES = [("a.cpp", "Too many ("), ("a.cpp", ") sheep"), ("a.cpp", "one more"), ("a.cpp", "B")]

    def faults(self, page=PAGE, sources=SOURCES):
        return list(log_texts.faults(page, sources))

    def test_a_page_that_agrees_passes(self):
        self.assertEqual(self.faults(), [])

    def test_a_text_that_the_page_does_not_explain_is_found(self):
        sources = [*self.SOURCES, ("b.cpp", "no wool")]
        self.assertEqual(self.faults(sources=sources), ['b.cpp: "no wool" is not explained'])

    def test_a_text_that_has_left_the_sources_is_found(self):
        wrong = self.faults(page=self.PAGE.replace("Too many", "Too few"))
        self.assertIn('docs/failures.md: "Too few (" of "Too few (…) sheep" is in no source', wrong)

    def test_literals_are_those_of_the_code(self):
        root = folder_with(self)
        (root / "worker").mkdir()
        source = '#include "a b.h"\n// "c d"\nf("e f"); static_assert(x, "g h");\ny = "i";'
        (root / "worker" / "a.cpp").write_text(source)
        self.assertEqual([text for _, text in log_texts.literals(root)], ["e f", "i"])


class Programs(unittest.TestCase):
    PROGRAM = "int a;\nint b;\n"

    def faults(self, page):
        root = folder_with(self, a__cpp=self.PROGRAM, a__md=page)
        return [fault.split(": ", 1)[1] for fault in programs.faults(root, root / "a.md")]

    def page(self, mark, shown):
        return f"x\n\n<!-- {mark} -->\n```cpp\n{shown}```\n"

    def test_a_program_or_lines_of_one_pass(self):
        self.assertEqual(self.faults(self.page("a.cpp", self.PROGRAM)), [])
        self.assertEqual(self.faults(self.page("part of a.cpp", "int b;\n")), [])

    def test_a_program_that_has_changed_is_found(self):
        wrong = ["does not show a.cpp as it is"]
        self.assertEqual(self.faults(self.page("a.cpp", "int a;\n")), wrong)
        self.assertEqual(self.faults(self.page("part of a.cpp", "b;\n")), wrong)

    def test_a_file_that_is_not_there_is_found(self):
        wrong = ["does not show b.cpp as it is"]
        self.assertEqual(self.faults(self.page("b.cpp", self.PROGRAM)), wrong)

    def test_a_name_without_a_program_is_found(self):
        wrong = ["a file is named without a block of C++ behind it"]
        self.assertEqual(self.faults("<!-- a.cpp -->\n\nx\n"), wrong)


class Drawings(unittest.TestCase):
    def faults(self, **files):
        return list(drawings.faults(folder_with(self, **files)))

    def drawing_of(self, source):
        return f"made by scripts/drawings from {hashlib.sha256(source.encode()).hexdigest()}"

    def test_a_drawing_of_its_source_passes(self):
        self.assertEqual(self.faults(a__dot="x", a__svg=self.drawing_of("x")), [])

    def test_a_changed_source_is_found(self):
        wrong = ["a.svg is out of date: run scripts/drawings"]
        self.assertEqual(self.faults(a__dot="y", a__svg=self.drawing_of("x")), wrong)

    def test_a_source_without_a_drawing_is_found(self):
        self.assertEqual(self.faults(a__dot="x"), ["a has a source or a drawing, but not both"])


if __name__ == "__main__":
    unittest.main()
