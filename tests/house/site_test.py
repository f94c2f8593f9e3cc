"""Tests of site_links.py and site_width.py: each finds what it is there for."""

import pathlib
import shutil
import tempfile
import unittest

import site_links
import site_width


def site_with(case, **pages):
    """A folder that lives as long as the test; the argument a is the body of a.html."""
    folder = tempfile.TemporaryDirectory()
    case.addCleanup(folder.cleanup)
    site = pathlib.Path(folder.name)
    for name, body in pages.items():
        text = f'<!DOCTYPE html><body style="margin: 0"><div class="contents">{body}</div>'
        (site / f"{name}.html").write_text(text)
    return site


class Links(unittest.TestCase):
    def faults(self, body):
        return list(site_links.faults(site_with(self, a=body, b='<p id="there">')))

    def test_a_page_that_is_not_there_is_found(self):
        self.assertEqual(self.faults('<a href="c.html">'), ["a.html: c.html leads nowhere"])

    def test_a_picture_that_is_not_there_is_found(self):
        self.assertEqual(self.faults('<img src="c.png">'), ["a.html: c.png leads nowhere"])

    def test_a_place_that_is_not_there_is_found(self):
        wrong = ["a.html: b.html#here names no place of that page"]
        self.assertEqual(self.faults('<a href="b.html#here">'), wrong)

    def test_good_links_and_links_elsewhere_pass(self):
        body = '<a name="x" href="#x"><a href="b.html#there"><a href="https://example.org/c.html">'
        self.assertEqual(self.faults(body), [])

    def test_an_entry_of_the_menu_that_leads_nowhere_is_found(self):
        site = site_with(self, a="")
        (site / "navtreedata.js").write_text('[ "A", "a.html", [ [ "C", "c.html#x", null ] ] ]')
        wrong = ["navtreedata.js: c.html#x leads nowhere"]
        self.assertEqual(list(site_links.faults(site)), wrong)

    def test_a_site_without_pages_is_a_fault(self):
        self.assertEqual(len(list(site_links.faults(site_with(self)))), 1)


@unittest.skipUnless(shutil.which(site_width.BROWSER), "no browser")
class Width(unittest.TestCase):
    def faults(self, body):
        return site_width.faults(site_with(self, a=body))

    def test_what_is_wider_than_the_page_is_found(self):
        wrong = ["a.html: <p> wide sticks out"]
        self.assertEqual(self.faults('<p style="width: 500px">wide'), wrong)

    def test_a_box_that_scrolls_may_hold_what_is_wider(self):
        body = '<div style="overflow-x: auto"><p style="width: 500px">wide</p></div>'
        self.assertEqual(self.faults(body), [])

    def test_a_box_that_scrolls_must_not_be_wider_itself(self):
        body = '<div style="overflow-x: auto; width: 500px">wide</div>'
        self.assertEqual(self.faults(body), ["a.html: <div> wide sticks out"])


if __name__ == "__main__":
    unittest.main()
