"""What the tests over a cluster share: starting its programs."""

import os
import subprocess
import tempfile


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


def started_redis(test):
    """The path of a new server's socket."""
    folder = tempfile.TemporaryDirectory()
    test.addCleanup(folder.cleanup)
    socket = os.path.join(folder.name, "redis.sock")
    options = ["--port", "0", "--unixsocket", socket, "--save", "", "--dir", folder.name]
    started(test, ["redis-server", *options], "eady to accept connections")
    return socket
