"""What all tests of the program share: it is started as a user would start it."""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

NQRUN = pathlib.Path(os.environ["NQRUN"])
LIMIT_SECONDS = 60  # reached only by a hang


class Done:
    """What came of a run."""

    def __init__(self, process, out, err):
        self.status = process.returncode
        self.out = out
        self.err = err


def wait_until(condition, what):
    """Polls for an event in another process; `what` is for the message when it does not come."""
    end = time.monotonic() + LIMIT_SECONDS
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.005)
    raise AssertionError("waited in vain for " + what)


def is_alive(pid):
    """Whether a process runs; one that only waits to be reaped does not."""
    try:
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="latin-1")
    except OSError:
        return False
    return stat.rpartition(")")[2].split()[0] not in ("Z", "X")


class ProgramTest(unittest.TestCase):
    """Each test has a folder of its own, in which the program runs."""

    maxDiff = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="nqrun-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def start(self, *words, **options):
        options.setdefault("cwd", self.folder)
        options.setdefault("stdin", subprocess.DEVNULL)
        options.setdefault("stdout", subprocess.PIPE)
        options.setdefault("stderr", subprocess.PIPE)
        return subprocess.Popen([NQRUN, *words], **options)

    def run_it(self, *words, stdin=None, **options):
        """Runs it to its end; `stdin` is bytes."""
        if stdin is not None:
            options["stdin"] = subprocess.PIPE
        process = self.start(*words, **options)
        try:
            out, err = process.communicate(stdin, timeout=LIMIT_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise
        return Done(process, out, (err or b"").decode())

    def expect(self, done, status, out=None, err=None):
        self.assertEqual(done.status, status, done.err)
        if out is not None:
            self.assertEqual(done.out, out)
        if err is not None:
            self.assertEqual(done.err, err)

    def lines(self, done):
        return done.out.decode().splitlines()

    def write(self, name, content, mode=0o644):
        path = self.folder / name
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        path.chmod(mode)
        return path

    def pids_in(self, name, count):
        """Waits for a file with so many process ids."""
        path = self.folder / name

        def read():
            words = path.read_text().split() if path.exists() else []
            return [int(word) for word in words] if len(words) >= count else None

        return wait_until(read, f"{count} pids in {name}")

    def expect_gone(self, pids):
        wait_until(lambda: not any(is_alive(pid) for pid in pids), f"the end of {pids}")


def main():
    unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[1:])
