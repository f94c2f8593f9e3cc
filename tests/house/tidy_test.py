"""Tests of tidy.py: that nothing is left out that could have a finding now."""

import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECKS = "Checks: '-*,modernize-use-nullptr'\nWarningsAsErrors: '*'\nHeaderFilterRegex: '.*'\n"


class Tidy(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.write(".clang-tidy", CHECKS)
        self.write("shared.h", "inline int* shared() { return nullptr; }\n")
        self.write("user.cpp", '#include "shared.h"\nint* user() { return shared(); }\n')
        self.write("other.cpp", "int other() { return 1; }\n")
        self.compile_with("")
        self.check("user.cpp", "other.cpp")

    def write(self, name, text):
        (self.folder / name).write_text(text)

    def compile_with(self, options):
        entries = [
            {
                "directory": str(self.folder),
                "command": f"g++ {options} -o {name}.o -c {self.folder / name}",
                "file": str(self.folder / name),
            }
            for name in ("user.cpp", "other.cpp")
        ]
        self.write("compile_commands.json", json.dumps(entries))

    def check(self, *names):
        tidy = pathlib.Path(__file__).with_name("tidy.py")
        return subprocess.run(
            [sys.executable, "-B", tidy, self.folder, *(self.folder / name for name in names)],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )

    def expect_clean(self, done, checked):
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn(f"tidy: 2 of 2 files are clean; {checked} checked", done.stdout)

    def test_does_not_check_again_what_has_not_changed(self):
        self.expect_clean(self.check("user.cpp", "other.cpp"), checked=0)

    def test_checks_those_that_include_a_changed_header(self):
        self.write("shared.h", "inline int* shared() { return nullptr; } // changed\n")
        self.expect_clean(self.check("user.cpp", "other.cpp"), checked=1)

    def test_checks_everything_again_by_changed_checks(self):
        self.write(".clang-tidy", CHECKS + "# changed\n")
        self.expect_clean(self.check("user.cpp", "other.cpp"), checked=2)

    def test_checks_everything_again_when_it_is_compiled_differently(self):
        self.compile_with("-DCHANGED")
        self.expect_clean(self.check("user.cpp", "other.cpp"), checked=2)

    def test_finds_what_a_changed_header_brings(self):
        self.write("shared.h", "inline int* shared() { return 0; }\n")
        done = self.check("user.cpp", "other.cpp")
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertIn("modernize-use-nullptr", done.stdout)

    def test_finds_what_is_still_there_in_the_next_run(self):
        self.write("other.cpp", "int* other() { return 0; }\n")
        self.check("other.cpp")
        done = self.check("other.cpp")
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertIn("modernize-use-nullptr", done.stdout)

    def test_finds_what_was_there_before_it_was_once_mended(self):
        bad = "int* other() { return 0; }\n"
        self.write("other.cpp", bad)
        self.check("other.cpp")
        self.write("other.cpp", "int* other() { return nullptr; }\n")
        self.check("other.cpp")
        self.write("other.cpp", bad)
        self.assertEqual(self.check("other.cpp").returncode, 1)

    def test_wants_something_to_check(self):
        self.assertNotEqual(self.check("missing.cpp").returncode, 0)


if __name__ == "__main__":
    unittest.main()
