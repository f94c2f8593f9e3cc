"""The host and worker on the bare scheduler, as a user starts them."""

import sys
import unittest

import example_run

HOST, WORKER = sys.argv[1:3]


class Core(unittest.TestCase):
    def test_each_line_comes_back_reversed_as_the_readme_says(self):
        ended = example_run.run([HOST, WORKER], b"one\n\ntwo\nthree\n")
        self.assertEqual(ended.stderr, b"")
        self.assertEqual(ended.returncode, 0)
        self.assertEqual(
            sorted(ended.stdout.decode().splitlines()),
            sorted(example_run.promised_output(__file__)),
        )

    def test_a_worker_that_cannot_be_started_is_told(self):
        ended = example_run.run([HOST, "/nowhere/worker"], b"one\n")
        self.assertEqual(ended.stderr, b"the workers could not be started\n")
        self.assertEqual(ended.returncode, 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
