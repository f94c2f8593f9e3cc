"""A search through files, some of which crash or hang the matcher."""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

import example_run

LINES = sys.argv[1]


class Lines(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)
        self.folder = pathlib.Path(self.scratch.name)

    def write(self, name, text):
        (self.folder / name).write_text(text)

    def search(self, expression):
        return example_run.run([LINES, expression, str(self.folder)], b"")

    def test_matching_lines_come_in_the_order_of_the_files(self):
        for number in range(300):
            self.write(f"file{number}", f"alpha {number}\nbeta\n")
        ended = self.search("alpha")
        order = [entry.name for entry in os.scandir(self.folder)]
        expected = [f"{self.folder}/{name}: alpha {name[4:]}" for name in order]
        self.assertEqual(ended.stdout.decode().splitlines(), expected)
        self.assertEqual(ended.returncode, 0, ended)

    def test_a_line_that_overflows_the_stack_costs_its_file_alone(self):
        self.write("long", "0" * 2_000_000 + "\n")
        self.write("short", "00\n")
        ended = self.search("(0*)*$")
        self.assertEqual(ended.stdout.decode(), f"{self.folder}/short: 00\n")
        # A sanitizer makes an exit status of the signal.
        self.assertRegex(
            ended.stderr.decode(), r"/long: the worker .*(SIGSEGV|exit status \d).* in each of 3 attempts"
        )
        self.assertEqual(ended.returncode, 1, ended)

    def test_a_line_that_takes_for_ever_is_timed_out(self):
        self.write("slow", "0" * 40 + "\n")
        ended = self.search("(0+)+$x")
        self.assertRegex(ended.stderr.decode(), r"/slow: the job passed its time-out")
        self.assertEqual(ended.returncode, 1, ended)

    def test_an_interrupt_ends_it_before_its_jobs_are_done(self):
        for number in range(50):
            self.write(f"slow{number}", "0" * 40 + "\n")
        searching = subprocess.Popen(
            [LINES, "(0+)+$x", str(self.folder)],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            preexec_fn=example_run.forbid_core_files,
        )
        first = searching.stderr.read(10)  # it is at work
        searching.send_signal(signal.SIGINT)
        _, rest = searching.communicate(timeout=example_run.SECONDS)
        self.assertIn(b"interrupted", first + rest)
        self.assertEqual(searching.returncode, 1)
        self.assertNotIn(b"50 failed", rest)

    def test_an_expression_may_hold_a_line_break(self):
        self.write("file", "alpha\n")
        ended = self.search("alpha|\n")
        self.assertEqual(ended.stdout.decode(), f"{self.folder}/file: alpha\n")

    def test_a_terminal_shows_no_line_behind_progress(self):
        self.write("file", "alpha\n")
        both = subprocess.run(
            [LINES, "alpha", str(self.folder)],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            timeout=example_run.SECONDS,
            check=True,
        )
        self.assertIn(f"\r\x1b[K{self.folder}/file: alpha\n", both.stdout.decode())

    def test_lines_that_cannot_be_written_are_a_failure(self):
        self.write("file", "alpha\n")
        with open("/dev/full", "wb") as full:
            ended = subprocess.run(
                [LINES, "alpha", str(self.folder)],
                stdout=full,
                stderr=subprocess.PIPE,
                timeout=example_run.SECONDS,
                check=False,
            )
        self.assertEqual(ended.returncode, 1, ended)

    def test_a_folder_that_is_not_there_is_told(self):
        ended = example_run.run([LINES, "alpha", "/nowhere/folder"], b"")
        self.assertEqual(ended.returncode, 2)
        self.assertIn(b"/nowhere/folder", ended.stderr)

    def test_an_expression_that_is_none_is_refused_once(self):
        for number in range(10):
            self.write(f"file{number}", "alpha\n")
        ended = self.search("(")
        self.assertEqual(ended.returncode, 2)
        self.assertEqual(ended.stderr.count(b"\n"), 1, ended.stderr)

    def test_progress_is_shown_while_files_are_still_handed_over(self):
        for number in range(1500):
            self.write(f"file{number}", "alpha\n")
        ended = self.search("beta")
        self.assertRegex(ended.stderr, rb"^\r0 files, 0 failed, \d+ to go \r")
        self.assertRegex(ended.stderr, rb"\r1500 files, 0 failed, 0 to go \n$")

    def test_a_missing_argument_is_explained(self):
        ended = example_run.run([LINES], b"")
        self.assertEqual(ended.returncode, 2)
        self.assertIn(b"usage: lines EXPRESSION FOLDER", ended.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
