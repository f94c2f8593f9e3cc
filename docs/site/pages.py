#!/usr/bin/env python3
"""Prepares the Markdown pages for Doxygen, so that they read the same there as on a forge.

usage: pages.py DEFAULT_LAYOUT OUTPUT_FOLDER

Reads docs/site/navigation and the pages that it names. Writes into the output folder one file for each
page, in which every heading has a name and every link leads to a page of the site, and layout.xml,
which is Doxygen's DEFAULT_LAYOUT with our navigation. Fails when a page of docs/ is missing from the
navigation. Links that lead nowhere are Doxygen's to find.
"""
import pathlib
import re
import sys
from xml.sax.saxutils import quoteattr

ROOT = pathlib.Path(__file__).resolve().parents[2]
START = ROOT / "docs" / "index.md"
NAVIGATION = pathlib.Path(__file__).with_name("navigation")

FENCE = re.compile(r"^ *(```|~~~)")
HEADING = re.compile(r"^(#{1,6}) +(.+?) *$")
LINK = re.compile(r"(?P<code>`+[^`]*`+)|(?P<image>!?)\[(?P<text>[^][]*)\]\((?P<target>[^()\s]+)\)")

# A class of the interface, or a namespace of functions: one that is described, or is inside another.
DECLARATION = re.compile(
    r"^(?:(?:class|struct)(?: NQ_API)? (\w+)(?: : .+)? \{"
    r"|(?:/// .*\nnamespace (?=\w+ )|namespace (?=\w+::))([\w:]+) \{)$",
    re.MULTILINE,
)


def slug_of(heading):
    """The name that a forge gives to a heading."""
    text = re.sub(r"\[([^][]*)\]\([^()]*\)", r"\1", heading).lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def classes_in(folder):
    """The entries of a folder of headers. A class is known by its name."""
    for header in sorted((ROOT / folder).glob("*.h")):
        for name, namespace in DECLARATION.findall(header.read_text()):
            yield (namespace or f"nq::{name}",) * 2


def tab(entry):
    """One entry of the navigation as Doxygen's layout wants it."""
    title, target = entry
    if isinstance(target, str):
        url = quoteattr(f"@ref {target}")
        return f'<tab type="user" url={url} title={quoteattr(title)}/>'
    return "\n".join((f'<tab type="usergroup" title={quoteattr(title)}>', *map(tab, target), "</tab>"))


class Page:
    """One Markdown file. Its name on the site is that of the file."""

    def __init__(self, path):
        self.path = path
        self.name = path.stem.lower()
        self.lines = path.read_text().splitlines()
        self.anchors = {}  # the forge's name of each heading, by the number of its line
        taken = {}
        is_code = False
        for number, line in enumerate(self.lines):
            is_code ^= bool(FENCE.match(line))
            heading = None if is_code else HEADING.match(line)
            if heading:
                slug = slug_of(heading[2])
                taken[slug] = taken.get(slug, -1) + 1
                self.anchors[number] = f"{slug}-{taken[slug]}" if taken[slug] else slug

    def title(self):
        return HEADING.match(self.lines[min(self.anchors)])[2].replace("`", "")

    def label(self, anchor=""):
        """What Doxygen knows the page, or the heading with this anchor, by."""
        is_top = not anchor or anchor == self.anchors[min(self.anchors)]
        return self.name if is_top else f"{self.name}-{anchor}"


class Site:
    def __init__(self):
        self.entries = []  # of the navigation: title, and a label or a list of further entries
        self.pages = {START: Page(START)}
        for line in NAVIGATION.read_text().splitlines():
            if line.startswith("#") or not line.strip():
                continue
            title, _, folder = line.partition(": ")
            self.entries.append((title, list(classes_in(folder))) if folder else self.entry(line))
        for path in sorted((ROOT / "docs").glob("*.md")):
            if path not in self.pages:
                sys.exit(f"{path.relative_to(ROOT)} is missing from docs/site/navigation")

    def entry(self, text):
        path = ROOT / text
        page = self.pages[path] = Page(path)
        return page.title(), page.label()

    def converted(self, page):
        lines = []
        is_code = False
        for number, line in enumerate(page.lines):
            is_code ^= bool(FENCE.match(line))
            if not is_code and not FENCE.match(line):
                line = LINK.sub(lambda match: self.link(page, match), line)
            if number in page.anchors:
                line = line.replace("`", "")  # which Doxygen would show as tags
            if number in page.anchors and page.path != START:
                line += f" {{#{page.label(page.anchors[number])}}}"
            lines.append(line)
        return "\n".join(lines) + "\n"

    def link(self, page, match):
        target = match["target"] or ""
        if match["code"] or re.match(r"[a-z]+:", target):
            return match[0]
        path, _, anchor = target.partition("#")
        file = (page.path.parent / path).resolve() if path else page.path
        if match["image"]:
            return f'<img class="drawing" src="{file.name}" alt={quoteattr(match["text"])}/>'
        if file in self.pages:
            text = match["text"].replace("`", "")  # which Doxygen would show as they are
            return f"[{text}](@ref {self.pages[file].label(anchor)})"
        # A source file, which the site does not hold.
        return match["text"] if file.exists() else match[0]

    def layout(self, default):
        rows = "\n".join(map(tab, self.entries))
        navigation = f'<navindex>\n<tab type="mainpage"/>\n{rows}\n</navindex>'
        layout = re.sub(r"<navindex>.*</navindex>", lambda _: navigation, default, flags=re.DOTALL)
        # What a class is, and who may call it when, comes before the list of its operations.
        layout = re.sub(r" *<detaileddescription .*\n", "", layout)
        return re.sub(r"<briefdescription .*", '<detaileddescription title="Description"/>', layout)


def main():
    default_layout, output = map(pathlib.Path, sys.argv[1:])
    site = Site()
    for page in site.pages.values():
        (output / page.path.name).write_text(site.converted(page))
    (output / "layout.xml").write_text(site.layout(default_layout.read_text()))


if __name__ == "__main__":
    main()
