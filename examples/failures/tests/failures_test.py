"""Jobs that fail, and all that is told about them."""

import pathlib
import re
import shutil
import sys
import tempfile
import unittest

import example_run

FAILURES = sys.argv[1]
REASONS = {
    "crash": "Crashed",
    "leave": "Exited",
    "throw": "Exception",
    "grow": "MemoryCap",
    "dawdle": "Timeout",
    "come too late": "Deadline",
    "be cancelled": "Cancelled",
    "dawdle, once more and with time enough": "None",
    "be stopped": "Stopped",
    "find no worker": "NoWorker",
}


def words_of(lines):
    """Without what differs from run to run: figures, names of files, and where a line is broken."""
    text = " ".join(" ".join(lines).split())
    text = re.sub(r" peakMemory \d+ KiB", "", re.sub(r"/\S*/failed-jobs/\S+\.job", "FILE", text))
    return example_run.comparable([text])[0].split()


class Failures(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp()
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.ended = example_run.run([FAILURES], b"", cls.folder)
        cls.lines = cls.ended.stdout.decode().splitlines()
        blocks = [block.splitlines() for block in "\n".join(cls.lines).split("\n\n")]
        cls.outcomes = {block[0]: block[1:] for block in blocks}

    def member(self, job, name):
        """The values of a member: of the last attempt, then of those before."""
        rows = (line.split(maxsplit=1) for line in self.outcomes[job])
        return [row[1] for row in rows if row[0] == name]

    def kept(self, job):
        (path,) = self.member(job, "keptAs")
        return pathlib.Path(path)

    def test_it_ends_well(self):
        self.assertEqual(self.ended.stderr, b"")
        self.assertEqual(self.ended.returncode, 0)

    def test_the_guide_shows_this_output(self):
        if not self.member("crash", "signalName()"):
            self.skipTest("a sanitizer makes an exit status of the signal")
        shown = example_run.promised_output(__file__, "../../docs/failures.md")
        self.assertEqual(words_of(self.lines), words_of(shown))

    def test_each_job_fails_for_a_reason_of_its_own(self):
        self.assertEqual(list(self.outcomes), list(REASONS))
        for job, reason in REASONS.items():
            if job != "crash":  # of which a sanitizer makes an exit status
                self.assertEqual(self.member(job, "reason"), [reason])

    def test_a_crash_is_tried_again(self):
        first, second = self.member("crash", "pid")
        self.assertNotEqual(first, second)

    def test_a_failed_job_is_run_again_from_its_bytes(self):
        again = "dawdle, once more and with time enough"
        self.assertEqual(self.member(again, "text()"), ["the sum is 42"])

    def test_a_kept_job_holds_its_bytes(self):
        self.assertEqual(self.kept("leave").read_bytes(), b"leave")

    def test_a_kept_job_is_run_again_by_hand(self):
        ended = example_run.run([FAILURES, "--job", self.kept("dawdle")], b"")
        self.assertEqual(ended.stdout, b"the sum is 42")
        self.assertEqual(ended.returncode, 0)

    def test_a_kept_job_fails_again_by_hand(self):
        ended = example_run.run([FAILURES, "--job", self.kept("throw")], b"")
        self.assertIn(b"row 17 has no price", ended.stderr)
        self.assertNotEqual(ended.returncode, 0)

    def test_what_happened_lies_beside_a_kept_job(self):
        text = self.kept("throw").with_suffix(".txt").read_text()
        self.assertIn("row 17 has no price", text)
        self.assertIn(f"--job {self.kept('throw')}\n", text)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
