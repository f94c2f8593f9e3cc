#!/usr/bin/env python3
"""Checks that every page of the site fits a phone: nothing sticks out at its side but what scrolls in
a box of its own.

usage: site_width.py SITE

SITE is the folder of the HTML files. Prints "skipped: " and why where there is no Chromium.
"""
import html
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

WIDTH = 420  # CSS pixels
BROWSER = "chromium"

# Loads one page after the other into a narrow frame, and lists what sticks out. Only boxes inside a
# page's contents may scroll sideways: around them, that would move the page as a whole.
HARNESS = """<!DOCTYPE html>
<meta charset="utf-8">
<iframe id="frame" style="width: WIDTHpx; height: 900px; border: 0"></iframe>
<pre id="result"></pre>
<script>
const width = WIDTH, pages = PAGES, found = {}, frame = document.getElementById("frame");

function isOutside(element) {
    const box = element.getBoundingClientRect();
    return box.width > 0 && box.height > 0 && (box.left < -1 || box.right > width + 1);
}

function sticksOut(element) {
    if (!isOutside(element))
        return false;
    for (let around = element; around; around = around.parentElement) {
        const style = frame.contentWindow.getComputedStyle(around);
        if (style.visibility === "hidden" || style.position === "fixed")
            return false;
        const isInContents = around.parentElement && around.parentElement.closest(".contents");
        if (around !== element && isInContents && style.overflowX !== "visible")
            return isOutside(around);
    }
    return true;
}

function next() {
    if (pages.length)
        frame.src = pages.shift();
    else
        document.getElementById("result").textContent = JSON.stringify(found);
}

frame.onload = () => {
    const page = frame.contentDocument;
    found[page.URL.split("/").pop()] = [...page.body.querySelectorAll("*")]
        .filter(sticksOut)
        .map(element => `<${element.localName}> ${element.textContent.trim().slice(0, 60)}`);
    next();
};
next();
</script>
"""


def faults(site):
    pages = [page.resolve().as_uri() for page in sorted(site.glob("*.html"))]
    with tempfile.TemporaryDirectory() as folder:
        harness = pathlib.Path(folder, "harness.html")
        text = HARNESS.replace("WIDTH", str(WIDTH)).replace("PAGES", json.dumps(pages))
        harness.write_text(text)
        # It reads nothing but our own files, so it may do without a sandbox, as root has to.
        command = [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--dump-dom"]
        command += ["--allow-file-access-from-files", "--virtual-time-budget=600000"]
        command += [f"--user-data-dir={folder}/profile", harness.as_uri()]
        shown = subprocess.run(command, capture_output=True, text=True, timeout=500)
    result = re.search(r'<pre id="result">(.+?)</pre>', shown.stdout, re.DOTALL)
    if not result:
        sys.exit(f"{BROWSER} has shown nothing:\n{shown.stderr}")
    found = json.loads(html.unescape(result[1]))
    if len(found) != len(pages) or not pages:
        sys.exit(f"{BROWSER} has shown {len(found)} of {len(pages)} pages")
    return [f"{name}: {what} sticks out" for name, wide in found.items() for what in wide]


def main():
    if not shutil.which(BROWSER):
        print(f"skipped: {BROWSER} is not installed")
        return
    wrong = faults(pathlib.Path(sys.argv[1]))
    if wrong:
        sys.exit("\n".join(wrong))
    print(f"every page fits into {WIDTH} pixels")


if __name__ == "__main__":
    main()
