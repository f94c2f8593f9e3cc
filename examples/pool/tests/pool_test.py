"""The programs of the pool's guide, as a user starts them."""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

import example_run

REVERSE, WORKER, FUTURES, LOOP, SEARCH = sys.argv[1:6]


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

    def test_files_are_searched_in_their_order(self):
        folder = self.folder()
        files = [folder / str(number) for number in range(20)]
        for number, file in enumerate(files):
            file.write_text("hit\n" * number)
        ended = example_run.run([SEARCH, "hit", *files], b"")
        self.assertEqual(ended.returncode, 0)
        self.assertEqual(ended.stderr, b"20 done, 0 failed, 0 cancelled, 0 attempts more\n")
        wanted = [f"{file}: {number}" for number, file in enumerate(files)]
        self.assertEqual(ended.stdout.decode().splitlines(), wanted)

    def test_an_expression_that_overflows_the_stack_costs_its_file_alone(self):
        folder = self.folder()
        (folder / "long").write_text("a" * 1_000_000)
        (folder / "short").write_text("ac")
        ended = example_run.run([SEARCH, "(a|b)*c", folder / "long", folder / "short"], b"")
        self.assertEqual(ended.stdout.decode(), f"{folder}/short: 1\n")
        self.assertIn(b"in each of 3 attempts", ended.stderr)
        self.assertIn(b"1 done, 1 failed, 0 cancelled, 2 attempts more\n", ended.stderr)
        self.assertEqual(ended.returncode, 1)

    def test_an_interrupted_search_hands_back_what_is_left(self):
        fifo = self.folder() / "fifo"
        os.mkfifo(fifo)
        search = subprocess.Popen([SEARCH, "hit", fifo], stderr=subprocess.PIPE)
        with open(fifo, "wb"):  # waits until the worker reads there
            search.send_signal(signal.SIGINT)
            _, errors = search.communicate(timeout=example_run.SECONDS)
        self.assertIn(b"the job was stopped with its pool while it ran", errors)
        self.assertIn(b"0 done, 0 failed, 1 cancelled, 0 attempts more\n", errors)
        self.assertEqual(search.returncode, 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
