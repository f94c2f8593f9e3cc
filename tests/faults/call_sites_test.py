"""Tests of call_sites.py: that no call can be forgotten."""

import unittest

import call_sites
import faults_table

CODE = """
0000000000001000 <recv@plt>:
    1000:\tff 25 00 00 00 00    \tjmp    *0x0(%rip)        # 4000 <recv@GLIBC_2.2.5>

0000000000002000 <nq::function()>:
    2000:\tba 01 00 00 00       \tmov    $0x1,%edx
    2005:\te8 f6 ef ff ff       \tcall   1000 <recv@plt>
"""
JUMP = """
0000000000002000 <nq::function()>:
    2000:\te9 fb ef ff ff       \tjmp    1000 <recv@plt>
"""
OPERATION = """
0000000000002000 <nq::function()>:
    2000:\tbe {:02x} 00 00 00       \tmov    $0x{:x},%esi
    2005:\te8 f6 ef ff ff       \tcall   1000 <fcntl@plt>
"""


def sites_in(code, *wanted):
    return call_sites.sites_in(code, "library", set(wanted))


class CallSites(unittest.TestCase):
    def test_a_call_is_named_by_the_place_that_it_returns_to(self):
        self.assertEqual([site.place for site in sites_in(CODE, "recv")], ["library+200a"])

    def test_a_call_made_by_a_jump_is_refused(self):
        with self.assertRaises(call_sites.Unknown):
            sites_in(JUMP, "recv")

    def test_the_operation_of_a_call_is_read_from_its_register(self):
        code = OPERATION.format(2, 2)
        self.assertEqual([site.key for site in sites_in(code, "fcntl")], ["fcntl:F_SETFD"])

    def test_an_operation_that_the_table_does_not_know_is_refused(self):
        with self.assertRaises(call_sites.Unknown):
            sites_in(OPERATION.format(99, 99), "fcntl")

    def test_a_function_that_the_table_does_not_know_is_found(self):
        self.assertEqual(call_sites.unknown_imports({"recv", "memcpy", "sendfile"}), ["sendfile"])

    def test_a_function_of_the_language_needs_no_place_in_the_table(self):
        self.assertEqual(call_sites.unknown_imports({"_Znwm", "__cxa_throw", "getpid"}), [])

    def test_every_operation_that_has_a_number_has_an_entry(self):
        entries = faults_table.FAULTS.keys() | faults_table.CANNOT_FAIL.keys()
        for call, names in faults_table.SELECTORS.items():
            for name in names:
                self.assertIn(f"{call}:{name}", entries)

    def test_the_entry_for_one_function_goes_before_the_general_one(self):
        looks = [fault.name for fault in faults_table.faults_of("recv", "", ["probeSilentHangUp"])]
        reads = [fault.name for fault in faults_table.faults_of("recv", "", ["receiveOnce"])]
        self.assertIn("ENOMEM", looks)
        self.assertNotIn("short-3", looks)
        self.assertIn("short-3", reads)

    def test_an_operation_has_an_entry_for_one_function_too(self):
        def outcome_of_no_such_process(function):
            faults = faults_table.faults_of("syscall", "SYS_pidfd_open", [function])
            return next(fault.tolerance for fault in faults if fault.name == "ESRCH")

        self.assertEqual(outcome_of_no_such_process("watchWith"), faults_table.COSTLY)
        self.assertEqual(outcome_of_no_such_process("nqChild"), faults_table.TRANSPARENT)


if __name__ == "__main__":
    unittest.main()
