"""Tests of run.py: that a run in which too little strikes is not taken for a good one.

The arguments are a command that runs run.py.
"""

import subprocess
import sys
import unittest

import faults_table
import run


def plan_of(call, name, first=1):
    fault = faults_table.Fault("fail", 1, name, faults_table.TRANSPARENT, (False,))
    return run.Plan(run.POOL, "host", call, "library+1000", fault, first, False, f"{call} at here")


def plans_and_kinds(call, name, struck, missed):
    plans = [plan_of(call, name, first) for first in range(1, struck + missed + 1)]
    return plans, ["answered"] * struck + [run.MISSED] * missed


class Complaints(unittest.TestCase):
    def test_nothing_is_said_when_everything_strikes(self):
        plans, kinds = plans_and_kinds("recv", "EINTR", struck=10, missed=0)
        self.assertEqual(run.complaints(plans, kinds, are_chosen=False), [])

    def test_one_fault_in_ten_may_miss(self):
        plans, kinds = plans_and_kinds("recv", "EINTR", struck=9, missed=1)
        self.assertEqual(run.complaints(plans, kinds, are_chosen=False), [])

    def test_a_run_in_which_nothing_strikes_is_refused(self):
        plans, kinds = plans_and_kinds("recv", "EINTR", struck=0, missed=10)
        found = run.complaints(plans, kinds, are_chosen=False)
        self.assertIn("only 0 of 10 faults struck", found)

    def test_a_run_in_which_too_few_strike_is_refused(self):
        plans, kinds = plans_and_kinds("recv", "EINTR", struck=8, missed=2)
        found = run.complaints(plans, kinds, are_chosen=False)
        self.assertEqual(found, ["only 8 of 10 faults struck"])

    def test_a_fault_that_one_call_never_suffers_is_named(self):
        plans, kinds = plans_and_kinds("recv", "EINTR", struck=20, missed=0)
        plans.append(plan_of("send", "EINTR"))
        kinds.append(run.MISSED)
        found = run.complaints(plans, kinds, are_chosen=False)
        self.assertEqual(found, ["strikes nowhere: EINTR of send"])

    def test_each_of_the_chosen_faults_has_to_strike(self):
        plans, kinds = plans_and_kinds("recv", "EINTR", struck=99, missed=1)
        found = run.complaints(plans, kinds, are_chosen=True)
        self.assertEqual(found, [f"did not strike: {plans[-1]}"])

    def test_a_bad_end_is_no_miss(self):
        plans, _ = plans_and_kinds("recv", "EINTR", struck=1, missed=0)
        self.assertEqual(run.complaints(plans, [run.BAD], are_chosen=True), [])

    def test_a_run_of_nothing_is_refused(self):
        self.assertEqual(run.complaints([], [], are_chosen=True), ["there is nothing to run"])


class ADisarmedRun(unittest.TestCase):
    command = sys.argv[1:]

    def test_fails_and_names_what_did_not_strike(self):
        fault = "EINTR at call 1: open in nqSpawn"
        done = subprocess.run(
            [*self.command, "--disarmed", "--only", fault], stdout=subprocess.PIPE, text=True
        )
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertIn(f"did not strike: {fault}", done.stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
