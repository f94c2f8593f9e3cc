"""Tests of what prepares the pages of the site, docs/site/pages.py, and of the checks of the built one."""

import pathlib
import shutil
import sys
import tempfile
import unittest
import unittest.mock

import site_links
import site_width

sys.path.append(str(pathlib.Path(__file__).parents[2] / "docs" / "site"))
import pages


def site_with(case, **pages):
    """A folder that lives as long as the test; the argument a is the body of a.html."""
    folder = tempfile.TemporaryDirectory()
    case.addCleanup(folder.cleanup)
    site = pathlib.Path(folder.name)
    for name, body in pages.items():
        text = f'<!DOCTYPE html><body style="margin: 0"><div class="contents">{body}</div>'
        (site / f"{name}.html").write_text(text)
    return site


class Pages(unittest.TestCase):
    FILES = {
        "docs/index.md": "# Start\n",
        "docs/guide.md": "# Guide\n[run\nit](../examples/one/main.cpp) [class](../include/nqOne.h)\n",
        "examples/one/README.md": "# One\n",
        "examples/one/main.cpp": "int main() {}\n",
        "include/nqOne.h": "class NQ_API nqOne {\n",
    }
    NAVIGATION = """Read
docs/guide.md
Call
examples/one/README.md + *.cpp
Classes: include
"""

    def site(self, navigation=NAVIGATION):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        root = pathlib.Path(folder.name).resolve()
        for name, text in (*self.FILES.items(), ("navigation", navigation)):
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text)
        places = {"ROOT": root, "START": root / "docs/index.md", "NAVIGATION": root / "navigation"}
        patch = unittest.mock.patch.multiple(pages, **places)
        patch.start()
        self.addCleanup(patch.stop)
        return pages.Site()

    def converted(self, name):
        site = self.site()
        return site, site.converted(site.pages[pages.ROOT / name])

    def test_a_page_without_a_place_in_the_menu_is_refused(self):
        with self.assertRaisesRegex(SystemExit, "docs/guide.md is missing"):
            self.site(self.NAVIGATION.replace("docs/guide.md\n", ""))

    def test_a_page_that_is_not_there_is_refused(self):
        with self.assertRaisesRegex(SystemExit, "there is no docs/tour.md"):
            self.site(self.NAVIGATION.replace("guide", "tour"))

    def test_a_program_that_is_not_there_is_refused(self):
        with self.assertRaisesRegex(SystemExit, r"no \*.py beside examples/one/README.md"):
            self.site(self.NAVIGATION.replace("*.cpp", "*.py"))

    def test_pages_and_classes_stand_below_their_groups(self):
        classes = ("Classes", [("nq::nqOne", "nq::nqOne")])
        groups = [("Read", [("Guide", "guide")]), ("Call", [("One", "examples-one"), classes])]
        self.assertEqual(self.site().entries, groups)

    def test_an_example_ends_with_its_programs(self):
        _, text = self.converted("examples/one/README.md")
        self.assertIn("## main.cpp {#examples-one-maincpp}", text)
        self.assertIn("~~~{.cpp}\nint main() {}\n~~~\n", text)

    def test_the_text_of_a_link_stands_on_one_line(self):
        _, text = self.converted("docs/guide.md")
        self.assertIn("[run it](@ref ", text)

    def test_a_link_to_a_source_file_leads_to_a_page_with_it(self):
        site, text = self.converted("docs/guide.md")
        self.assertIn("(@ref file-examplesonemaincpp)", text)
        self.assertIn("int main() {}", site.source(pages.ROOT / "examples/one/main.cpp"))

    def test_a_link_to_a_header_leads_to_its_class(self):
        _, text = self.converted("docs/guide.md")
        self.assertIn("[class](@ref nq::nqOne)", text)


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
