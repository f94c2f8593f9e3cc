#!/usr/bin/env python3
"""Checks that every link of the built site, those of the menus included, leads to a file and a place
in it.

usage: site_links.py SITE

SITE is the folder of the HTML files. Links that leave the site are not followed.
"""
import html.parser
import pathlib
import re
import sys
import urllib.parse

MENUS = ("navtreedata.js", "menudata.js")  # at the side, and on a phone
MENU_ENTRY = re.compile(r'"([^"\s]+\.html(?:#[^"]*)?)"')
ELSEWHERE = re.compile(r"[a-z]+:")


class Page(html.parser.HTMLParser):
    """The links of one page, and the places in it that a link may name."""

    def __init__(self, file):
        super().__init__()
        self.links = []
        self.places = {""}
        self.feed(file.read_text())

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name in ("href", "src"):
                self.links.append(value)
            elif name == "id" or (tag, name) == ("a", "name"):
                self.places.add(value)


def faults(site):
    pages = {file.name: Page(file) for file in sorted(site.glob("*.html"))}
    links = {name: page.links for name, page in pages.items()}
    for menu in filter(pathlib.Path.exists, (site / name for name in MENUS)):
        links[menu.name] = MENU_ENTRY.findall(menu.read_text())
    for name, targets in links.items():
        for target in targets:
            if ELSEWHERE.match(target):
                continue
            path, _, place = urllib.parse.unquote(target).partition("#")
            page = pages.get(path or name)
            if path and not (site / path).exists():
                yield f"{name}: {target} leads nowhere"
            elif page and place not in page.places:
                yield f"{name}: {target} names no place of that page"
    if not pages:
        yield f"{site} holds no pages"


def main():
    wrong = sorted(set(faults(pathlib.Path(sys.argv[1]))))
    if wrong:
        sys.exit("\n".join(wrong))
    print("every link of the site leads somewhere")


if __name__ == "__main__":
    main()
