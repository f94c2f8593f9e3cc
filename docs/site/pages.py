#!/usr/bin/env python3
"""Prepares the Markdown pages for Doxygen, so that they read the same there as on a forge.

usage: pages.py OUTPUT_FOLDER

Reads docs/site/navigation, which says how it is written, and the pages that it names. Writes into
OUTPUT_FOLDER/pages one file for each page, in which every heading has a name and every link leads to
a page of the site, and one for each source file that a page links to. OUTPUT_FOLDER/layout.xml, which
has to be Doxygen's own layout, gets our menu, and OUTPUT_FOLDER/Doxyfile what varies from one version
to the next. Fails when a page of docs/ or an example is missing from the navigation. Links that lead
nowhere are Doxygen's to find.
"""
import pathlib
import re
import sys
from xml.sax.saxutils import quoteattr

ROOT = pathlib.Path(__file__).resolve().parents[2]
START = ROOT / "docs" / "index.md"
NAVIGATION = pathlib.Path(__file__).with_name("navigation")
VERSION = ROOT / "include" / "nqVersion.h"

FENCE = re.compile(r"^ *(```|~~~)")
HEADING = re.compile(r"^(#{1,6}) +(.+?) *$")
LINK = re.compile(
    r"(?P<code>^ *(?P<fence>```|~~~).*?^ *(?P=fence)|`+[^`]*`+)"
    r"|(?P<image>!?)\[(?P<text>[^][]*)\]\((?P<target>[^()\s]+)\)",
    re.DOTALL | re.MULTILINE,
)

# A class of the interface, or a namespace of functions: one that is described, or is inside another.
DECLARATION = re.compile(
    r"^(?:(?:class|struct)(?: NQ_API)? (\w+)(?: : .+)? \{"
    r"|(?:/// .*\nnamespace (?=\w+ )|namespace (?=\w+::))([\w:]+) \{)$",
    re.MULTILINE,
)
INTERNAL = "detail"

# What a page may show whole, and how Doxygen colours it.
SOURCES = {".cpp": ".cpp", ".h": ".cpp", ".py": ".py", "": ".txt"}

SVG_WIDTH = re.compile(r'<svg[^>]* width="([0-9.]+)(pt|px)?"')


def slug_of(heading):
    """The name that a forge gives to a heading."""
    text = re.sub(r"\[([^][]*)\]\([^()]*\)", r"\1", heading).lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def classes_in(folder):
    """The entries of a folder of headers. A class is known by its name."""
    for header in sorted((ROOT / folder).glob("*.h")):
        for name, namespace in DECLARATION.findall(header.read_text()):
            if namespace != INTERNAL:
                yield (namespace or f"nq::{name}",) * 2


def class_of(header):
    """The class or namespace that a header is named after; empty if there is none."""
    for name, namespace in DECLARATION.findall(header.read_text()):
        if header.stem in (name, namespace.replace("::", "")):
            return namespace or f"nq::{name}"
    return ""


def tab(entry):
    """One entry of the navigation as Doxygen's layout wants it."""
    title, target = entry
    if isinstance(target, str):
        url = quoteattr(f"@ref {target}")
        return f'<tab type="user" url={url} title={quoteattr(title)}/>'
    return "\n".join((f'<tab type="usergroup" url="[none]" title={quoteattr(title)}>', *map(tab, target), "</tab>"))


def picture(file, description):
    """A drawing is as wide as the page, but never so small that its letters cannot be read."""
    width = SVG_WIDTH.search(file.read_text()) if file.suffix == ".svg" else None
    style = ""
    if width:
        pixels = float(width[1]) * (4 / 3 if width[2] == "pt" else 1)
        style = f' style="min-width: {min(0.6 * pixels, 900):.0f}px"'
    image = f'<img src="{file.name}" alt={quoteattr(" ".join(description.split()))}{style}/>'
    return f'<div class="drawing">{image}</div>'


def whole(file):
    return f"~~~{{{SOURCES[file.suffix]}}}\n{file.read_text()}~~~\n"


def name_of(path):
    """The name of a page on the site: folders have files of one name."""
    if path.stem == "README":
        name = "-".join(path.parent.relative_to(ROOT).parts)
    else:
        name = path.stem if path.parent == START.parent else f"project-{path.stem}"
    return name.lower().replace("_", "-")


class Page:
    """One Markdown file."""

    def __init__(self, path, programs=()):
        self.path = path
        self.name = name_of(path)
        self.lines = path.read_text().splitlines()
        self.programs = programs  # files that the page shows at its end
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
        self.folders = []  # of the headers in the reference
        self.pictures = set()  # the folders of those that pages show
        self.sources = {}  # the page of each source file that a page links to, by the file
        self.pages = {START: Page(START)}
        for line in NAVIGATION.read_text().splitlines():
            if line.startswith("#") or not line.strip():
                continue
            title, _, folder = line.partition(": ")
            if folder:
                self.folders.append(folder)
                self.entries[-1][1].append((title, list(classes_in(folder))))
            elif line.partition(" + ")[0].endswith(".md"):
                self.entries[-1][1].append(self.entry(*line.split(" + ")))
            else:
                self.entries.append((line, []))
        for path in sorted([*ROOT.glob("docs/*.md"), *ROOT.glob("examples/*/README.md")]):
            if path not in self.pages:
                sys.exit(f"{path.relative_to(ROOT)} is missing from docs/site/navigation")

    def entry(self, text, programs=""):
        path = ROOT / text
        if not path.exists():
            sys.exit(f"docs/site/navigation: there is no {text}")
        found = [sorted(path.parent.glob(pattern)) for pattern in programs.split()]
        if not all(found):
            sys.exit(f"docs/site/navigation: there are no {programs} beside {text}")
        page = self.pages[path] = Page(path, sum(found, []))
        return page.title(), page.label()

    def converted(self, page):
        lines = page.lines.copy()
        for number, anchor in page.anchors.items():
            lines[number] = lines[number].replace("`", "")  # which Doxygen would show as tags
            if page.path != START:
                lines[number] += f" {{#{page.label(anchor)}}}"
        text = LINK.sub(lambda match: self.link(page, match), "\n".join(lines)) + "\n"
        for program in page.programs:
            text += f"\n## {program.name} {{#{page.label(slug_of(program.name))}}}\n\n{whole(program)}"
        return text

    def link(self, page, match):
        if match["code"]:
            # A single quote would end Doxygen's code that begins with one backtick.
            return f"`{match[0]}`" if re.fullmatch("`[^`]*'[^`]*`", match[0]) else match[0]
        target = match["target"]
        if re.match(r"[a-z]+:", target):
            return match[0]
        path, _, anchor = target.partition("#")
        file = (page.path.parent / path).resolve() if path else page.path
        if match["image"]:
            self.pictures.add(str(file.parent.relative_to(ROOT)))
            return picture(file, match["text"])
        text = match["text"].replace("`", "")  # which Doxygen would show as they are
        text = text.replace("\n", " ")  # where Doxygen would end a text with quotes
        label = self.label_of(file, anchor)
        if label:
            return f"[{text}](@ref {label})"
        # What the site does not hold, such as a script.
        return match["text"] if file.exists() else match[0]

    def label_of(self, file, anchor):
        if file in self.pages:
            return self.pages[file].label(anchor)
        if not file.is_file() or file.suffix not in SOURCES:
            return None
        if str(file.parent.relative_to(ROOT)) in self.folders and class_of(file):
            return class_of(file)
        return self.sources.setdefault(file, "file-" + slug_of(str(file.relative_to(ROOT))))

    def source(self, file):
        return f"# {file.relative_to(ROOT)} {{#{self.sources[file]}}}\n\n{whole(file)}"

    def layout(self, default):
        rows = "\n".join(map(tab, self.entries))
        navigation = f'<navindex>\n<tab type="mainpage"/>\n{rows}\n</navindex>'
        layout = re.sub(r"<navindex>.*</navindex>", lambda _: navigation, default, flags=re.DOTALL)
        # What a class is, and who may call it when, comes before the list of its operations.
        layout = re.sub(r" *<detaileddescription .*\n", "", layout)
        return re.sub(r"<briefdescription .*", '<detaileddescription title="Description"/>', layout)

    def settings(self):
        numbers = re.findall(r"#define NQ_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", VERSION.read_text())
        return (
            f"PROJECT_NUMBER = {'.'.join(numbers)}\n"
            f"INPUT += {' '.join(self.folders)}\n"
            f"IMAGE_PATH = {' '.join(sorted(self.pictures))}\n"
        )


def main():
    output = pathlib.Path(sys.argv[1])
    site = Site()
    for page in site.pages.values():
        (output / "pages" / f"{page.name}.md").write_text(site.converted(page))
    for file, label in site.sources.items():
        (output / "pages" / f"{label}.md").write_text(site.source(file))
    layout = output / "layout.xml"
    layout.write_text(site.layout(layout.read_text()))
    (output / "Doxyfile").write_text(site.settings())


if __name__ == "__main__":
    main()
