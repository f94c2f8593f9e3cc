"""Tests of summary.py."""

import unittest
import xml.etree.ElementTree as ElementTree

import summary

GTEST_OUTPUT = """[ RUN      ] Pool.isLarge
/home/somebody/pool_test.cpp:12: Skipped
too few descriptors

[  SKIPPED ] Pool.isLarge (0 ms)
"""
GTEST_OUTPUT_WITHOUT_REASON = """[ RUN      ] Pool.isLarge
/home/somebody/pool_test.cpp:12: Skipped

[  SKIPPED ] Pool.isLarge (0 ms)
"""


def case(name, status, skipped=None, output=""):
    element = ElementTree.Element("testcase", name=name, status=status)
    if skipped is not None:
        ElementTree.SubElement(element, "skipped", message=skipped)
    ElementTree.SubElement(element, "system-out").text = output
    return element


def skipped_case(output):
    return case("Pool.isLarge", "notrun", "SKIP_REGULAR_EXPRESSION_MATCHED", output)


class Summary(unittest.TestCase):
    def test_all_have_passed_only_when_each_was_run(self):
        line, is_good = summary.summary_of([case("A.b", "run"), case("A.c", "run")])
        self.assertEqual(line, "All 2 tests passed.")
        self.assertTrue(is_good)

    def test_what_was_skipped_stands_there_with_its_reason(self):
        line, is_good = summary.summary_of([case("A.b", "run"), skipped_case(GTEST_OUTPUT)])
        self.assertEqual(line, "1 test passed; 1 skipped: Pool.isLarge (too few descriptors).")
        self.assertTrue(is_good)

    def test_a_plain_program_gives_its_reason_too(self):
        line, _ = summary.summary_of([skipped_case("skipped: no such compiler\n")])
        self.assertEqual(line, "0 tests passed; 1 skipped: Pool.isLarge (no such compiler).")

    def test_a_skip_without_a_reason_is_told_as_that(self):
        line, _ = summary.summary_of([skipped_case(GTEST_OUTPUT_WITHOUT_REASON)])
        self.assertIn("Pool.isLarge (no reason given)", line)

    def test_a_failed_test_is_named_and_makes_it_a_failure(self):
        line, is_good = summary.summary_of([case("A.b", "run"), case("A.c", "fail")])
        self.assertEqual(line, "1 test passed; 1 failed: A.c.")
        self.assertFalse(is_good)

    def test_a_test_whose_preparation_failed_has_failed(self):
        line, is_good = summary.summary_of([case("A.b", "notrun", "Fixture dependency failed")])
        self.assertEqual(line, "0 tests passed; 1 failed: A.b.")
        self.assertFalse(is_good)

    def test_a_disabled_test_is_named(self):
        line, is_good = summary.summary_of([case("A.b", "run"), case("A.c", "disabled")])
        self.assertEqual(line, "1 test passed; 1 disabled: A.c.")
        self.assertTrue(is_good)

    def test_no_test_at_all_is_a_failure(self):
        self.assertFalse(summary.summary_of([])[1])


if __name__ == "__main__":
    unittest.main()
