"""The host of the failures, and what it prints about them."""

import re
import sys
import unittest

import example_run

HOST, WORKER = sys.argv[1:3]


class Failures(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.ended = example_run.run([HOST, WORKER], b"")
        cls.lines = cls.ended.stdout.decode().splitlines()

    def failure_of(self, job):
        return [line for line in self.lines if line.startswith(f'failed: job "{job}"')]

    def pids(self):
        """Before and after."""
        lists = [line.split(": ")[1] for line in self.lines if " workers: " in line]
        return [set(pids.split()) for pids in lists]

    def test_it_ends_well(self):
        self.assertEqual(self.ended.returncode, 0, self.ended)

    def test_a_crash_costs_its_job(self):
        self.assertEqual(
            self.failure_of("crash"),
            ['failed: job "crash", UnexpectedCrash, "Unexpected crash"'],
        )

    def test_a_hanging_job_is_timed_out(self):
        self.assertEqual(len(self.failure_of("hang")), 1, self.lines)
        self.assertRegex(
            self.failure_of("hang")[0],
            r'^failed: job "hang", Timeout, "killing scheduler worker : timeout \(\d+s\)"$',
        )

    def test_a_leaking_job_is_stopped_above_its_cap(self):
        self.assertEqual(len(self.failure_of("leak")), 1, self.lines)
        self.assertRegex(
            self.failure_of("leak")[0],
            r'^failed: job "leak", TooMuchRam, "using too much RAM \([\d.]+[MG]B\)"$',
        )

    def test_every_other_job_is_answered(self):
        self.assertIn("9 other jobs answered", self.lines)

    def test_three_new_workers_stand_where_three_have_been_lost(self):
        before, after = self.pids()
        self.assertEqual(len(before), 3)
        self.assertEqual(len(after), 3)
        self.assertEqual(before & after, set())

    def test_a_worker_that_leaves_by_itself_answers_its_last_job(self):
        self.assertIn("1 last answer of a worker that has left", self.lines)

    def test_the_readme_shows_this_output(self):
        shown = example_run.comparable(example_run.promised_output(__file__))
        self.assertEqual(example_run.comparable(self.lines), shown)

    def test_each_failure_is_logged_with_its_worker(self):
        before, after = self.pids()
        logged = re.findall(r"Job failed error \(\d\) .* \(PID (\d+)\)", "\n".join(self.lines))
        self.assertEqual(set(logged), before)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
