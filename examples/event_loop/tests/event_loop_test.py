"""The pump inside a poll() loop: every answer comes, and nothing spins."""

import re
import subprocess
import sys
import unittest

import example_run

HOST, WORKER = sys.argv[1:3]

LARGE = b"900000720000023"  # takes a worker a noticeable time
LINES = 10
TICK_MS = 300  # as in host.cpp
FOR_EACH_JOB = 2  # its line and its result
SLACK = 5  # the end of the input, and workers that are slow to take their bytes


def wake_ups_and_milliseconds(line):
    figures = re.fullmatch(r"(\d+) wake-ups in (\d+) ms, \d+ ms of processor time", line)
    return [int(figure) for figure in figures.groups()]


class EventLoop(unittest.TestCase):
    def test_every_number_is_answered_as_the_readme_says(self):
        ended = example_run.run([HOST, WORKER], b"899\n31\n1\nabc\n" + LARGE + b"\n")
        self.assertEqual(ended.returncode, 0, ended)
        shown = example_run.promised_output(__file__)
        lines = ended.stdout.decode().splitlines()
        self.assertEqual(sorted(lines[:-1]), sorted(shown[:-1]))
        self.assertEqual(
            example_run.comparable(lines[-1:]), example_run.comparable(shown[-1:])
        )

    def test_a_line_without_its_end_counts(self):
        ended = example_run.run([HOST, WORKER], b"899")
        self.assertIn(b"899 = 29 * 31\n", ended.stdout)

    def test_a_closed_input_has_ended(self):
        ended = subprocess.run(
            ["sh", "-c", 'exec "$0" "$1" <&-', HOST, WORKER],
            capture_output=True,
            timeout=example_run.SECONDS,
            check=False,
        )
        self.assertEqual(ended.returncode, 0, ended)
        self.assertRegex(ended.stdout, rb"^\d+ wake-ups in ")

    def test_it_wakes_up_for_lines_results_and_ticks_alone(self):
        jobs = 4
        ended = example_run.run([HOST, WORKER], (LARGE + b"\n") * jobs)
        wake_ups, milliseconds = wake_ups_and_milliseconds(ended.stdout.decode().splitlines()[-1])
        self.assertLessEqual(wake_ups, FOR_EACH_JOB * jobs + milliseconds / TICK_MS + SLACK)
        self.assertGreaterEqual(milliseconds, 1, "nothing was waited for")

    def test_it_answers_while_its_input_stays_open(self):
        with subprocess.Popen(
            [HOST, WORKER], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        ) as host:
            for number in range(1, LINES + 1):
                host.stdin.write(b"%d\n" % number)
                host.stdin.flush()
                self.assertRegex(host.stdout.readline(), b"^%d " % number)
            host.stdin.close()
            last = host.stdout.readlines()[-1].decode().rstrip()
            self.assertEqual(host.wait(example_run.SECONDS), 0)
        wake_ups, milliseconds = wake_ups_and_milliseconds(last)
        self.assertLessEqual(wake_ups, FOR_EACH_JOB * LINES + milliseconds / TICK_MS + SLACK)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
