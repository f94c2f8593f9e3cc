"""A pool inside a loop of the program's own. Each test is of every loop that was built."""

import subprocess
import sys
import unittest

import example_run

PROGRAMS = sys.argv[1:]
LARGEST_PRIME = b"18446744073709551557"  # of 64 bits; takes a worker much longer than the time-out


def each_program(test):
    def of_all(self):
        for program in PROGRAMS:
            with self.subTest(program):
                test(self, program)

    return of_all


class EventLoop(unittest.TestCase):
    @each_program
    def test_every_number_is_answered_as_the_readme_says(self, program):
        ended = example_run.run([program], b"899\n31\n1\nabc\n" + LARGEST_PRIME + b"\n")
        self.assertEqual((ended.stderr, ended.returncode), (b"", 0))
        shown = example_run.comparable(example_run.promised_output(__file__))
        self.assertEqual(example_run.comparable(ended.stdout.decode().splitlines()), shown)

    @each_program
    def test_a_line_without_its_end_counts(self, program):
        ended = example_run.run([program], b"31\n899")
        self.assertEqual(sorted(ended.stdout.splitlines()), [b"31: prime", b"899: 29 * 31"])

    @each_program
    def test_an_input_without_lines_ends_it(self, program):
        ended = example_run.run([program], b"")
        self.assertEqual((ended.stdout, ended.stderr, ended.returncode), (b"", b"", 0))

    @each_program
    def test_a_closed_input_ends_it(self, program):
        ended = example_run.run(["sh", "-c", 'exec "$0" <&-', program], b"")
        self.assertEqual((ended.stdout, ended.stderr, ended.returncode), (b"", b"", 0))

    @each_program
    def test_what_is_no_number_is_refused_with_a_reason(self, program):
        ended = example_run.run([program], b"-1\n\n31x\n18446744073709551616\n")
        answers = ended.stdout.splitlines()
        self.assertEqual(len(answers), 4, answers)
        for answer in answers:
            self.assertIn(b'threw "not a number of 64 bits"', answer)

    @each_program
    def test_it_answers_and_keeps_limits_while_its_input_stays_open(self, program):
        with subprocess.Popen(
            [program], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        ) as looping:
            for number in (b"1", b"31", b"899", LARGEST_PRIME, b"899"):
                looping.stdin.write(number + b"\n")
                looping.stdin.flush()
                answer = looping.stdout.readline()
                self.assertTrue(answer.startswith(number + b": "), answer)
                if number == LARGEST_PRIME:
                    self.assertRegex(answer, b"the job passed its time-out")
            looping.stdin.close()
            self.assertEqual(looping.wait(example_run.SECONDS), 0)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
