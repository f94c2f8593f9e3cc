#!/usr/bin/env python3
"""A worker in Python: a job is text in UTF-8, its result is the text reversed.

For your own worker replace process(); the rest is the frame protocol, which docs/frame-format.md
explains. Python 3.9 or later, standard library alone.
"""

import os
import socket
import struct
import sys

LENGTH = struct.Struct("=I")  # 4 bytes, in the byte order of this machine
UNSUPPORTED_BYTES = 1 << 31
CREDENTIALS = struct.Struct("3i")  # pid, user and group


def process(job):
    """Returns the result of a job, never an empty one.

    An exception ends this process with its traceback on standard error. That costs this one job,
    which its host gets back as "Unexpected crash", and the scheduler starts another worker.
    """
    return job.decode()[::-1].encode()


def connect(name):
    """The connection to the scheduler that listens under `name`."""
    pipe = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    pipe.connect(b"\0" + os.fsencode(name))
    credentials = pipe.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, CREDENTIALS.size)
    if CREDENTIALS.unpack(credentials)[1] != os.geteuid():
        raise PermissionError("another user listens under the name of the scheduler")
    return pipe


def receive_exactly(pipe, count):
    """The next `count` bytes, or None when the stream ends before the last of them."""
    received = bytearray(count)
    missing = memoryview(received)
    while missing:
        try:
            moved = pipe.recv_into(missing)
        except ConnectionError:
            return None
        if moved == 0:
            return None
        missing = missing[moved:]
    return received


def receive_frame(pipe):
    """The payload of the next frame, or None when the stream ends before it is whole."""
    length = receive_exactly(pipe, LENGTH.size)
    if length is None:
        return None
    return receive_exactly(pipe, LENGTH.unpack(length)[0])


def send_frame(pipe, payload):
    """Whether the other end was still there to take the frame."""
    try:
        pipe.sendall(LENGTH.pack(len(payload)) + payload)
    except ConnectionError:  # Python itself ignores SIGPIPE
        return False
    return True


def serve(pipe):
    """One job after the other, until the scheduler ends the stream."""
    while (job := receive_frame(pipe)) is not None:
        result = process(job)
        if not 0 < len(result) < UNSUPPORTED_BYTES:
            raise ValueError(f"a result of {len(result)} bytes would not complete its job")
        if not send_frame(pipe, result):
            return


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit("usage: worker.py PIPE (a scheduler gives the name of its pipe)")
    with connect(sys.argv[1]) as connection:
        serve(connection)
