"""A pool on a thread of its own, whose workers are another program."""

import sys
import unittest

import example_run

HOST, WORKER = sys.argv[1:3]


class Futures(unittest.TestCase):
    def test_each_word_has_its_future_as_the_readme_says(self):
        ended = example_run.run([HOST, WORKER, "stressed", "", "drawer"], b"")
        self.assertEqual(ended.stdout.decode().splitlines(), example_run.promised_output(__file__))
        self.assertEqual((ended.stderr, ended.returncode), (b"", 0))

    def test_a_host_without_words_ends_well(self):
        ended = example_run.run([HOST, WORKER], b"")
        self.assertEqual((ended.stdout, ended.stderr, ended.returncode), (b"", b"", 0))

    def test_a_worker_that_is_not_there_is_told(self):
        ended = example_run.run([HOST, "/nowhere/worker", "one"], b"")
        self.assertIn(b"/nowhere/worker", ended.stderr)
        self.assertEqual(ended.returncode, 2)

    def test_a_worker_program_that_is_started_by_hand_explains_itself(self):
        ended = example_run.run([WORKER], b"")
        self.assertIn(b"a worker program, which a pool starts", ended.stderr)
        self.assertEqual(ended.returncode, 2)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
