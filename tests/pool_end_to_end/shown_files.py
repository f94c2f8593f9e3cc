"""Reads the files that show a pool as other programs do: JSON and XML by Python's own readers,
metrics by promtool where it is installed.

usage: shown_files.py HOST
"""

import collections
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

HOST = ""
JOBS = 40
LIMIT = 120  # seconds, for what takes none on an idle machine
LABELS = {"plain", 'a\n"b"\\', "<&>\x01\x7f", "\ufffd\ufffd\ufffd\ufffd\ufffd"}
SVG = "{http://www.w3.org/2000/svg}"


def whole_events(text):
    """Of a trace that may end in the middle of a line, and without its bracket."""
    lines = text.split("\n")
    assert lines[0] == "["
    body = "\n".join(lines[1:-1]).rstrip().removesuffix("]").rstrip().removesuffix(",")
    return json.loads("[" + body + "]")


class Files(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_host(self, scenario):
        subprocess.run([HOST, scenario, self.folder], check=True, timeout=LIMIT)

    def file(self, name):
        return self.folder / name

    def attempts(self):
        events = json.loads(self.file("trace.json").read_text("utf-8"))
        return [event for event in events if event.get("cat") == "attempt"]

    def test_a_trace_is_json_and_has_each_attempt_of_each_job_once(self):
        self.run_host("run")
        attempts = self.attempts()
        self.assertEqual(sorted(event["args"]["id"] for event in attempts),
                         list(range(1, JOBS + 1)))
        outcomes = collections.Counter(event["args"]["outcome"] for event in attempts)
        self.assertEqual(outcomes, {"done": 30, "crashed": 5, "exception": 5})
        self.assertEqual({event["name"] for event in attempts}, LABELS)

    def test_spans_of_one_worker_do_not_overlap(self):
        self.run_host("run")
        ends = collections.defaultdict(int)
        for event in sorted(self.attempts(), key=lambda event: event["ts"]):
            self.assertGreaterEqual(event["ts"], ends[event["tid"]])
            ends[event["tid"]] = event["ts"] + event["dur"]

    def test_a_timeline_is_xml_with_a_bar_for_each_attempt(self):
        self.run_host("run")
        root = ElementTree.parse(self.file("timeline.svg")).getroot()
        tips = [tip.text for tip in root.iter(SVG + "title")]
        self.assertEqual(sum("crashed after" in tip for tip in tips), 5)
        self.assertEqual(sum("done after" in tip for tip in tips), 30)
        self.assertEqual(sum(tip.startswith('a\u240a"b"\\: ') for tip in tips), JOBS // 4)

    def test_a_status_is_json(self):
        self.run_host("run")
        status = json.loads(self.file("status.json").read_text("utf-8"))
        self.assertEqual(status["state"], "ended")
        self.assertEqual(status["name"], 'a "pool" \ufffd<&>')
        self.assertEqual((status["done"], status["failed"]), (30, 10))

    def test_metrics_please_promtool(self):
        if shutil.which("promtool") is None:
            self.skipTest("promtool is not installed")
        self.run_host("run")
        checked = subprocess.run(["promtool", "check", "metrics"], timeout=LIMIT, check=False,
                                 input=self.file("metrics.prom").read_bytes(), capture_output=True)
        self.assertEqual((checked.returncode, checked.stdout, checked.stderr), (0, b"", b""))

    def test_jobs_in_the_hosts_own_process_are_shown(self):
        self.run_host("here")
        self.assertEqual({event["tid"] for event in self.attempts()}, {1})
        self.assertEqual(len(self.attempts()), JOBS - 5)

    def test_a_pool_on_a_thread_is_shown(self):
        self.run_host("thread")
        self.assertEqual(len(self.attempts()), JOBS)
        status = json.loads(self.file("status.json").read_text("utf-8"))
        self.assertEqual(status["submitted"], JOBS)

    def test_a_killed_host_leaves_all_but_the_last_moments(self):
        with subprocess.Popen([HOST, "endless", self.folder], stdout=subprocess.PIPE) as host:
            self.assertEqual(host.stdout.readline(), b"some are written\n")
            host.kill()
        attempts = [event for event in whole_events(self.file("trace.json").read_text("utf-8"))
                    if event.get("cat") == "attempt"]
        self.assertGreater(len(attempts), 0)
        identifiers = [event["args"]["id"] for event in attempts]
        self.assertEqual(len(set(identifiers)), len(identifiers))
        status = json.loads(self.file("status.json").read_text("utf-8"))
        self.assertEqual((status["state"], status["host_pid"]), ("running", host.pid))
        self.assertFalse(self.file("timeline.svg").exists())


if __name__ == "__main__":
    HOST = sys.argv.pop(1)
    unittest.main()
