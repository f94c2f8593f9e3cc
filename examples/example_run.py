"""What the tests of the examples share: starting programs, and what a README promises of them."""

import pathlib
import re
import resource
import subprocess

SECONDS = 60  # for what takes two, unless the machine is very busy


def forbid_core_files():
    """A worker that crashes on purpose must not leave a file beside its program."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run(command, text, folder=None):
    """Runs a program to its end, with `text` on its standard input, in `folder`."""
    return subprocess.run(
        command,
        input=text,
        capture_output=True,
        timeout=SECONDS,
        check=False,
        cwd=folder,
        preexec_fn=forbid_core_files,
    )


def promised_output(test_file, page="README.md"):
    """The lines that a page, beside the tests by default, shows as output: its last text block."""
    page = pathlib.Path(test_file).resolve().parents[1] / page
    blocks = re.findall(r"^```text\n(.*?)^```$", page.read_text(), re.DOTALL | re.MULTILINE)
    return blocks[-1].splitlines()


def comparable(lines):
    """Lines in an order of their own and without figures, which differ from run to run.

    How large a worker was is not known of one that stayed smaller than its host has ever been.
    """
    lines = [re.sub(r",? at [\d.]+ MB\b", "", line) for line in lines]
    return sorted(re.sub(r"\d+(\.\d+)?( ms| s\b)?", "N", line) for line in lines)
