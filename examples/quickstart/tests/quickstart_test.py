"""The quickstart, as a user starts it."""

import pathlib
import sys
import tempfile
import unittest

import example_run

QUICKSTART = sys.argv[1]


class Quickstart(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.ended = example_run.run([QUICKSTART], b"")
        cls.lines = cls.ended.stdout.decode().splitlines()

    def line_of(self, job):
        (line,) = [line for line in self.lines if line.startswith(job + ": ")]
        return line

    def test_it_lives_through_jobs_that_do_not(self):
        self.assertEqual(self.ended.stderr, b"")
        self.assertEqual(self.ended.returncode, 1, "what says that some jobs were not done")
        self.assertEqual(len(self.lines), 5, self.lines)

    def test_good_jobs_are_done(self):
        self.assertEqual(self.line_of("stressed"), "stressed: desserts")
        self.assertEqual(self.line_of("drawer"), "drawer: reward")

    def test_a_crash_is_told(self):
        # A sanitizer makes an exit status of the signal.
        self.assertRegex(self.line_of("crash"), r": the worker .*(SIGSEGV|exit status \d)")

    def test_a_job_that_hangs_is_ended(self):
        self.assertRegex(self.line_of("hang"), r": the job passed its time-out after \d")

    def test_a_job_that_grows_is_ended(self):
        self.assertRegex(self.line_of("grow"), r": the worker passed the memory cap after \d")

    def test_its_readme_and_the_front_page_show_this_output(self):
        if "SIGSEGV" not in self.line_of("crash"):
            self.skipTest("a sanitizer makes an exit status of the signal")
        for page in ("README.md", "../../README.md"):
            shown = example_run.comparable(example_run.promised_output(__file__, page))
            self.assertEqual(example_run.comparable(self.lines), shown, page)

    def test_a_job_in_a_file_is_run_by_hand(self):
        with tempfile.TemporaryDirectory() as folder:
            job = pathlib.Path(folder, "job")
            job.write_bytes(b"desserts")
            ended = example_run.run([QUICKSTART, "--job", job], b"")
        self.assertEqual((ended.stdout, ended.stderr, ended.returncode), (b"stressed", b"", 0))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
