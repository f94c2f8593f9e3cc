"""The submitter in Python, with a server and an agent."""

import pathlib
import subprocess
import sys
import unittest

import example_run
from cluster_programs import started, started_redis

AGENT, WORKER = sys.argv[1:3]
SUBMITTER = pathlib.Path(__file__).resolve().parents[1] / "submit.py"
DEBIAN_PYTHON = "/usr/bin/python3"  # the one that python3-redis is for


class Submitter(unittest.TestCase):
    def test_each_line_gets_its_outcome(self):
        socket = started_redis(self)
        agent = [AGENT, "--redis", f"unix:{socket}", "--queue", "words", "--workers", "1"]
        started(self, [*agent, "--", WORKER], "takes jobs")
        ended = subprocess.run(
            [DEBIAN_PYTHON, SUBMITTER, socket, "words"],
            input="one\ntwo\ncrash\n",
            stdout=subprocess.PIPE,
            text=True,
            timeout=example_run.SECONDS,
            check=True,
        )
        self.assertEqual(ended.stdout, "one: eno\ntwo: owt\ncrash failed: crashed\n")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
