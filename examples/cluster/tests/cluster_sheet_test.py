"""The contact sheet over a cluster, one of whose agents is killed."""

import json
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import example_run
from cluster_programs import started, started_redis
from example_jpeg import jpeg

AGENT, CONTACT_SHEET, MAKE_HOSTILE_FILES = sys.argv[1:]


class ClusterSheet(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.pictures = self.folder / "pictures"
        self.pictures.mkdir()
        self.redis = started_redis(self)
        self.queue = ["--redis", f"unix:{self.redis}", "--queue", "sheet"]

    def start_agent(self, name):
        options = ["--name", name, "--workers", "1", "--prefetch", "3", "--lease", "1"]
        return started(self, [AGENT, *self.queue, *options, "--", CONTACT_SHEET], "takes jobs")

    def start_sheet_on_a_file_that_hangs(self):
        """The program and, which holds all of its jobs, the only agent."""
        for name in ("b.jpg", "c.jpg", "d.jpg"):
            (self.pictures / name).write_bytes(jpeg(4, [0, 80, 160, 240]))
        hostile = self.folder / "hostile"
        hostile.mkdir()
        subprocess.run([MAKE_HOSTILE_FILES, hostile, self.pictures / "b.jpg"], check=True)
        (hostile / "repeats.jpg").rename(self.pictures / "a.jpg")
        agent = self.start_agent("first")
        sheet = subprocess.Popen(
            [CONTACT_SHEET, *self.queue, "--timeout", "600", "-o", "sheet.png", self.pictures],
            cwd=self.folder,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.addCleanup(sheet.kill)
        # Asks again and again, until one line of the answer is the number of jobs that are held.
        ask = ["redis-cli", "-s", self.redis, "-r", "-1", "-i", "0.02"]
        started(self, [*ask, "XPENDING", "nq:{sheet}:jobs", "agents"], "4\n")
        return sheet, agent

    def report(self):
        return json.loads((self.folder / "sheet.json").read_text())["files"]

    def test_a_killed_agents_pictures_are_made_by_another(self):
        sheet, agent = self.start_sheet_on_a_file_that_hangs()
        agent.kill()
        shutil.copy(self.pictures / "b.jpg", self.folder / "again")
        (self.folder / "again").rename(self.pictures / "a.jpg")
        self.start_agent("second")
        told, errors = sheet.communicate(timeout=example_run.SECONDS)
        self.assertIn("4 of 4 shown, 0 failed", told)
        self.assertRegex(errors, r"/a\.jpg: agent first was lost, [\d.]+ s after .*; tried again\n")
        self.assertEqual([(file["status"], file["attempts"]) for file in self.report()], 4 * [("ok", 2)])

    def test_an_interrupt_takes_the_jobs_out_of_the_queue(self):
        sheet, _ = self.start_sheet_on_a_file_that_hangs()
        sheet.send_signal(signal.SIGINT)
        sheet.communicate(timeout=example_run.SECONDS)
        self.assertEqual(sheet.returncode, -signal.SIGINT)
        self.assertEqual({file["status"] for file in self.report()}, {"not-done"})
        left = ["redis-cli", "-s", self.redis, "XLEN", "nq:{sheet}:jobs"]
        self.assertEqual(subprocess.run(left, capture_output=True, check=True).stdout, b"0\n")


if __name__ == "__main__":
    if not shutil.which("redis-server"):
        print("skipped: redis-server is not installed")
        sys.exit()
    unittest.main(argv=sys.argv[:1])
