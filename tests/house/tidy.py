"""Runs clang-tidy over source files, but not again over what was clean and has not changed since.

usage: tidy.py BUILD [--jobs N] FILE...

BUILD holds compile_commands.json; files that it does not compile are left out. For each clean file,
BUILD/tidy keeps a checksum of all that this depends on: the file, what it includes, the choice of
checks, the compile command, clang-tidy. A file with a finding leaves none.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import pathlib
import shlex
import subprocess
import sys

# g++ speaks C++17 unasked, so the compile commands do not say it; clang-tidy has to be told.
CHECK = ("clang-tidy", "--quiet", "--extra-arg=-std=c++17")


def output_of(*command, folder=None):
    return subprocess.run(
        command, cwd=folder, stdout=subprocess.PIPE, text=True, check=True
    ).stdout


def first_commands(build):
    """{file: how it is compiled}; the first of several ways, which differ in their options only."""
    commands = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        commands.setdefault(os.path.realpath(entry["file"]), entry)
    return commands


def files_read_for(entry):
    """The source file and all that it includes."""
    arguments = shlex.split(entry["command"])
    output = arguments.index("-o")
    del arguments[output : output + 2]
    arguments[arguments.index("-c")] = "-M"
    rule = output_of(*arguments, folder=entry["directory"])
    return shlex.split(rule.partition(":")[2].replace("\\\n", " "))


def checks_for(file):
    """The files that choose the checks: those of the file's folder and of the ones above it."""
    chosen = (folder / ".clang-tidy" for folder in pathlib.Path(file).parents)
    return [file for file in chosen if file.exists()]


class Checker:
    def __init__(self, build):
        self.commands = first_commands(build)
        self.folder = build / "tidy"
        self.folder.mkdir(exist_ok=True)
        # By its own, clang-tidy checks a file once for each of its commands.
        self.replace("compile_commands.json", json.dumps(list(self.commands.values())))
        self.version = output_of("clang-tidy", "--version")

    def replace(self, name, text):
        """At once: where the commands cannot be read, clang-tidy of another run checks without them."""
        new = self.folder / f"{name}.{os.getpid()}"
        new.write_text(text)
        new.replace(self.folder / name)

    def is_compiled(self, file):
        return os.path.realpath(file) in self.commands

    def checksum_of(self, file):
        entry = self.commands[file]
        checksum = hashlib.sha256(f"{self.version}{CHECK}{entry['command']}".encode())
        for path in (*checks_for(file), *files_read_for(entry)):
            content = pathlib.Path(entry["directory"], path).read_bytes()
            checksum.update(f"{path} {len(content)}\n".encode() + content)
        return checksum.hexdigest()

    def check(self, file):
        """Whether the file is clean, and whether it had to be looked at for that."""
        file = os.path.realpath(file)
        stamp = self.folder / (file.strip("/").replace("/", "_") + ".clean")
        # Taken before the check: what is changed meanwhile is checked once more.
        checksum = self.checksum_of(file)
        if stamp.exists() and stamp.read_text() == checksum:
            return True, False
        found = subprocess.run(
            [*CHECK, "-p", self.folder, file],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        sys.stdout.write(found.stdout if found.returncode != 0 else "")
        if found.returncode == 0:
            stamp.write_text(checksum)
        else:
            stamp.unlink(missing_ok=True)
        return found.returncode == 0, True


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("files", nargs="+")
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)))
    options = parser.parse_args()

    checker = Checker(options.build.resolve())
    files = [file for file in options.files if checker.is_compiled(file)]
    if not files:
        sys.exit(f"tidy: {options.build} compiles none of these files")
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        outcomes = list(pool.map(checker.check, files))
    dirty = sum(not is_clean for is_clean, _ in outcomes)
    checked = sum(was_checked for _, was_checked in outcomes)
    print(
        f"tidy: {len(files) - dirty} of {len(files)} files are clean; {checked} checked, "
        "the others are unchanged"
    )
    return 1 if dirty else 0


if __name__ == "__main__":
    sys.exit(main())
