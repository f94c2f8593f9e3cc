"""The submitter in Python, with a server and an agent."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import example_run

AGENT, WORKER = sys.argv[1:3]
SUBMITTER = pathlib.Path(__file__).resolve().parents[1] / "submit.py"
DEBIAN_PYTHON = "/usr/bin/python3"  # the one that python3-redis is for


def started(test, command, ready):
    """The program, once it has printed a line with `ready` in it."""
    program = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", *command],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    test.addCleanup(program.stdout.close)
    test.addCleanup(program.wait)
    test.addCleanup(program.kill)
    for line in program.stdout:
        if ready in line:
            return program
    raise AssertionError(f"{command[0]} ends before it says {ready!r}")


class Submitter(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.socket = os.path.join(folder.name, "redis.sock")
        options = ["--port", "0", "--unixsocket", self.socket, "--save", "", "--dir", folder.name]
        started(self, ["redis-server", *options], "eady to accept connections")

    def test_each_line_gets_its_outcome(self):
        agent = [AGENT, "--redis", f"unix:{self.socket}", "--queue", "words", "--workers", "1"]
        started(self, [*agent, "--", WORKER], "takes jobs")
        ended = subprocess.run(
            [DEBIAN_PYTHON, SUBMITTER, self.socket, "words"],
            input="one\ntwo\ncrash\n",
            stdout=subprocess.PIPE,
            text=True,
            timeout=example_run.SECONDS,
            check=True,
        )
        self.assertEqual(ended.stdout, "one: eno\ntwo: owt\ncrash failed: crashed\n")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
