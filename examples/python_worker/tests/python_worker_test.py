"""The worker in Python: byte by byte against a scheduler made of a bare socket, and in real pools."""

import os
import pathlib
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import unittest
import uuid

import example_run

CORE_HOST, POOL_HOST, PAGE = sys.argv[1:4]
WORKER = pathlib.Path(__file__).resolve().parents[1] / "worker.py"

# The worker's first line finds the interpreter that runs this test.
os.environ["PATH"] = os.path.dirname(os.path.realpath(sys.executable)) + ":" + os.environ["PATH"]


def frame(payload):
    return struct.pack("=I", len(payload)) + payload


def conversation_of_page():
    """Pairs of who and bytes, from the recording in docs/frame-format.md."""
    steps = []
    text = pathlib.Path(PAGE).read_text()
    recording = re.search(r"^```text\n(connects to .*?)^```$", text, re.DOTALL | re.MULTILINE)
    for line in recording[1].splitlines():
        who, shown = line[:13].strip(), re.match(r"(?:[0-9a-f]{2} ?)*", line[13:])[0]
        if who:
            steps.append((who, b""))
        if shown:
            steps[-1] = (steps[-1][0], steps[-1][1] + bytes.fromhex(shown))
    return steps


class Conversation(unittest.TestCase):
    """The test is the scheduler."""

    def setUp(self):
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.settimeout(example_run.SECONDS)
        self.addCleanup(self.listener.close)
        self.worker = None

    def start(self, name=None):
        name = name or str(uuid.uuid4())
        self.listener.bind(b"\0" + name.encode())
        self.listener.listen()
        self.worker = subprocess.Popen([WORKER, name], stderr=subprocess.PIPE)
        self.addCleanup(self.worker.wait)
        self.addCleanup(self.worker.kill)
        self.addCleanup(self.worker.stderr.close)
        self.pipe, _ = self.listener.accept()
        self.addCleanup(self.pipe.close)
        self.pipe.settimeout(example_run.SECONDS)

    def receive(self, count):
        received = b""
        while len(received) < count and (piece := self.pipe.recv(count - len(received))):
            received += piece
        return received

    def leaves_with(self):
        return self.worker.wait(example_run.SECONDS)

    def test_the_recording_of_the_page_is_replayed(self):
        steps = conversation_of_page()
        self.assertEqual(
            [who for who, _ in steps],
            ["connects to", "receives", "sends", "receives", "sends", "receives"],
        )
        address = steps[0][1]
        self.assertEqual(address[:3], struct.pack("=H", socket.AF_UNIX) + b"\0")
        self.start(address[3:].decode())
        for who, content in steps[1:-1]:
            if who == "receives":
                self.pipe.sendall(content)
            else:
                self.assertEqual(self.receive(len(content)), content)
        self.pipe.shutdown(socket.SHUT_WR)
        self.assertEqual(self.receive(1), b"", "the worker sent more than its results")
        self.assertEqual(self.leaves_with(), 0)

    def test_a_frame_may_come_byte_by_byte(self):
        self.start()
        for byte in frame(b"abc") + frame(b"x"):
            self.pipe.sendall(bytes([byte]))
        self.assertEqual(self.receive(12), frame(b"cba") + frame(b"x"))

    def test_it_leaves_when_the_stream_ends_anywhere(self):
        for beginning in (b"", b"\x03", frame(b"abc")[:4], frame(b"abc")[:5]):
            with self.subTest(beginning=beginning):
                self.setUp()
                self.start()
                self.pipe.sendall(beginning)
                self.pipe.close()
                self.assertEqual(self.leaves_with(), 0)
                self.assertEqual(self.worker.stderr.read(), b"")

    def test_it_leaves_when_nobody_takes_its_result(self):
        self.start()
        self.pipe.sendall(frame(b"x" * (4 << 20)))
        self.receive(1)  # it has begun to send, and cannot get it all into the socket
        self.pipe.close()
        self.assertEqual(self.leaves_with(), 0)
        self.assertEqual(self.worker.stderr.read(), b"")

    def test_it_leaves_when_its_last_result_stays_unread(self):
        self.start()
        self.pipe.sendall(frame(b"abc"))
        self.pipe.recv(7, socket.MSG_PEEK | socket.MSG_WAITALL)
        self.pipe.close()  # which the kernel tells the worker as a reset
        self.assertEqual(self.leaves_with(), 0)
        self.assertEqual(self.worker.stderr.read(), b"")

    def test_an_exception_ends_it_with_its_traceback(self):
        self.start()
        self.pipe.sendall(frame(b"\xff"))
        self.assertEqual(self.receive(1), b"")
        self.assertEqual(self.leaves_with(), 1)
        self.assertIn(b"UnicodeDecodeError", self.worker.stderr.read())


class Scheduler(unittest.TestCase):
    """The host is the one of the core example."""

    def reversed_by_scheduler(self, lines):
        ended = example_run.run([CORE_HOST, WORKER], b"".join(line + b"\n" for line in lines))
        self.assertEqual(ended.stderr, b"")
        self.assertEqual(ended.returncode, 0)
        return sorted(ended.stdout.splitlines())

    def test_payloads_of_any_size_come_back(self):
        sizes = (1, 4096, 1 << 20, 5 << 20)
        lines = [(b"%d." % size + b"x" * size)[:size] for size in sizes]
        self.assertEqual(self.reversed_by_scheduler(lines), sorted(line[::-1] for line in lines))

    def test_many_jobs_are_all_answered(self):
        lines = [b"job %d" % number for number in range(2000)]
        self.assertEqual(self.reversed_by_scheduler(lines), sorted(line[::-1] for line in lines))

    def test_an_exception_costs_its_one_job(self):
        lines = [b"job %d" % number for number in range(20)]
        no_text = b"\xff no text"
        jobs = b"\n".join(lines[:10] + [no_text] + lines[10:])
        ended = example_run.run([CORE_HOST, WORKER], jobs)
        self.assertEqual(ended.returncode, 1)
        self.assertEqual(ended.stderr.count(b"failed: "), 1)
        self.assertIn(b"failed: " + no_text + b": Unexpected crash\n", ended.stderr)
        answers = set(ended.stdout.splitlines())
        self.assertLessEqual({line[::-1] for line in lines}, answers)


class Pool(unittest.TestCase):
    def answers(self, text):
        ended = example_run.run([POOL_HOST, WORKER], text)
        self.assertEqual((ended.stderr, ended.returncode), (b"", 0))
        return ended.stdout.decode().splitlines()

    def test_the_readme_shows_its_answers(self):
        shown = example_run.promised_output(__file__)
        self.assertEqual(self.answers("one\n\nnaïve\nthree\n".encode()), shown)

    def test_a_worker_that_is_not_there_is_told(self):
        ended = example_run.run([POOL_HOST, "/nowhere/worker"], b"one\n")
        self.assertIn(b"/nowhere/worker", ended.stderr)
        self.assertEqual((ended.stdout, ended.returncode), (b"", 2))

    def test_an_exception_costs_its_one_job_and_its_traceback_is_told(self):
        before, failed, after = self.answers(b"one\n\xff\nthree\n")
        self.assertEqual([before, after], ["eno", "eerht"])
        self.assertRegex(failed, "left with exit status 1 .*it last wrote .UnicodeDecodeError")


def children_of(pid):
    found = []
    for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            after_name = stat.read_text().rpartition(")")[2].split()
        except OSError:
            continue  # has ended meanwhile
        if int(after_name[1]) == pid:
            found.append(int(stat.parent.name))
    return found


class End(unittest.TestCase):
    """The host is the example's own, which answers while its input is open."""

    def setUp(self):
        self.host = subprocess.Popen(
            [POOL_HOST, WORKER], stdin=subprocess.PIPE, stdout=subprocess.PIPE
        )
        self.addCleanup(self.host.wait)
        self.addCleanup(self.host.kill)
        self.addCleanup(self.host.stdout.close)
        self.addCleanup(self.host.stdin.close)
        self.host.stdin.write(b"abc\n")
        self.host.stdin.flush()
        self.assertEqual(self.host.stdout.readline(), b"cba\n")
        self.workers = [os.pidfd_open(pid) for pid in children_of(self.host.pid)]
        for worker in self.workers:
            self.addCleanup(os.close, worker)
        self.assertEqual(len(self.workers), 1)

    def assert_workers_are_gone(self):
        for worker in self.workers:
            self.assertTrue(select.select([worker], [], [], example_run.SECONDS)[0])

    def test_the_workers_leave_when_the_host_ends(self):
        self.host.stdin.close()
        # A worker that had to be killed would take 30 seconds.
        self.assertEqual(self.host.wait(25), 0)
        self.assert_workers_are_gone()

    def test_the_workers_are_gone_when_the_host_is_killed(self):
        self.host.send_signal(signal.SIGKILL)
        self.assert_workers_are_gone()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
