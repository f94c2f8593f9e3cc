"""The programs of the pool's guide, as a user starts them."""

import pathlib
import sys
import tempfile
import unittest

import example_run

REVERSE, WORKER, FUTURES, LOOP = sys.argv[1:5]


class Pool(unittest.TestCase):
    def folder(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        return pathlib.Path(folder.name)

    def ends_well(self, ended):
        self.assertEqual(ended.stderr, b"")
        self.assertEqual(ended.returncode, 0)
        return ended.stdout.decode().splitlines()

    def test_each_line_comes_back_reversed_as_the_readme_says(self):
        lines = self.ends_well(example_run.run([REVERSE], b"one\n\nthree\n"))
        self.assertEqual(sorted(lines), sorted(example_run.promised_output(__file__)))

    def test_a_program_without_jobs_ends_well(self):
        self.assertEqual(self.ends_well(example_run.run([REVERSE], b"")), [])

    def test_a_job_in_a_file_is_run_by_hand(self):
        job = self.folder() / "job"
        job.write_bytes(b"desserts")
        ended = example_run.run([REVERSE, "--job", job], b"")
        self.assertEqual(self.ends_well(ended), ["stressed"])

    def test_a_worker_program_that_is_started_by_hand_explains_itself(self):
        ended = example_run.run([WORKER], b"")
        self.assertIn(b"a worker program, which a pool starts", ended.stderr)
        self.assertEqual(ended.returncode, 2)

    def test_futures_have_the_outcomes_of_another_program(self):
        ended = example_run.run([FUTURES, WORKER, "one", "", "three"], b"")
        self.assertEqual(self.ends_well(ended), ["eno", "", "eerht"])

    def test_a_worker_that_is_not_there_is_told(self):
        ended = example_run.run([FUTURES, "/nowhere/worker", "one"], b"")
        self.assertIn(b"/nowhere/worker", ended.stderr)
        self.assertEqual(ended.returncode, 2)

    def test_a_loop_of_its_own_answers_each_line(self):
        lines = self.ends_well(example_run.run([LOOP], b"one\n\nthree\n"))
        self.assertEqual(sorted(lines), ["", "eerht", "eno"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
