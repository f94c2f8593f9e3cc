"""The worker in Python takes no jobs from another user, whom only root can play."""

import os
import pathlib
import socket
import subprocess
import sys
import unittest
import uuid

import example_run

WORKER = pathlib.Path(__file__).resolve().parents[1] / "worker.py"
NOBODY = 65534

# The worker's first line finds the interpreter that runs this test.
os.environ["PATH"] = os.path.dirname(os.path.realpath(sys.executable)) + ":" + os.environ["PATH"]


class ForeignUser(unittest.TestCase):
    def test_a_worker_leaves_when_another_user_listens(self):
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(listener.close)
        name = str(uuid.uuid4())
        os.seteuid(NOBODY)
        try:
            listener.bind(b"\0" + name.encode())
            listener.listen()
        finally:
            os.seteuid(0)
        ended = subprocess.run(
            [WORKER, name], capture_output=True, timeout=example_run.SECONDS, check=False
        )
        self.assertEqual(ended.returncode, 1)
        self.assertIn(b"another user listens", ended.stderr)


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: only root can play another user")
        sys.exit()
    unittest.main()
