"""Counts what does not depend on the machine's mood: system calls, instructions, allocations.

A count per job is the difference between a run of 2 N and a run of N jobs, divided by N, so that
start and end do not count. A count whose tool is not installed is None.
"""

import collections
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile

JOBS = 400
RUN_LIMIT_SECONDS = 300


def system_calls_per_job(command, side):
    """A dictionary from the call's name to its number per job, on one side of the pipe."""
    if shutil.which("strace") is None:
        return None
    few, many = (_traced(command, jobs, side) for jobs in (JOBS, 2 * JOBS))
    per_job = {name: (many[name] - few[name]) / JOBS for name in many}
    return {name: count for name, count in sorted(per_job.items()) if abs(count) >= 0.01}


def _traced(command, jobs, side):
    with tempfile.TemporaryDirectory() as directory:
        trace = pathlib.Path(directory) / "trace"
        _run(["strace", "-ff", "-s", "0", "-o", str(trace), *command, "--jobs", str(jobs)])
        files = sorted(pathlib.Path(directory).iterdir(), key=_pid_of)
        # The host is the first process; all others are its workers.
        chosen = files[:1] if side == "host" else files[1:]
        return _calls_in(chosen)


def _pid_of(path):
    return int(path.suffix[1:])


def _calls_in(files):
    calls = collections.Counter()
    for file in files:
        for line in file.read_text(encoding="ascii", errors="replace").splitlines():
            name = re.match(r"([a-z_0-9]+)\(", line)
            if name:
                calls[name.group(1)] += 1
    return calls


def system_calls_at_rest(command, seconds):
    """Calls per second of the host and of all workers, while the program given pumps."""
    if shutil.which("strace") is None:
        return None
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as program:
        pids = json.loads(program.stdout.readline())
        with tempfile.TemporaryDirectory() as directory:
            trace = pathlib.Path(directory) / "trace"
            attach = [word for pid in (pids["host"], *pids["workers"]) for word in ("-p", str(pid))]
            with subprocess.Popen(
                ["strace", "-ff", "-s", "0", "-o", str(trace), *attach], stderr=subprocess.DEVNULL
            ) as tracer:
                try:
                    tracer.wait(seconds)
                except subprocess.TimeoutExpired:
                    tracer.send_signal(signal.SIGINT)
            host = trace.with_name(f"trace.{pids['host']}")
            files = set(pathlib.Path(directory).iterdir())
            counted = {"host": _calls_in([host]), "workers": _calls_in(files - {host})}
        program.stdout.read()
    return {
        side: {name: count / seconds for name, count in sorted(calls.items())}
        for side, calls in counted.items()
    }


def instructions_per_job(command):
    return _difference(command, _callgrind(), _instructions)


def allocations_per_job(command):
    return _difference(command, _memcheck(), _allocations)


def worker_instructions_per_job(command):
    return _difference_of_worker(command, _callgrind(), _instructions)


def worker_allocations_per_job(command):
    return _difference_of_worker(command, _memcheck(), _allocations)


def _callgrind():
    return ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]


def _memcheck():
    return ["valgrind", "--tool=memcheck", "--undef-value-errors=no"]


def _instructions(text):
    return sum(int(count) for count in re.findall(r"Collected : (\d+)", text))


def _allocations(text):
    counts = re.findall(r"total heap usage: ([\d,]+) allocs", text)
    return sum(int(count.replace(",", "")) for count in counts)


def _difference(command, tool, read):
    if shutil.which("valgrind") is None:
        return None
    few, many = (read(_run([*tool, *command, "--jobs", str(n)])) for n in (JOBS, 2 * JOBS))
    return (many - few) / JOBS


def _difference_of_worker(command, tool, read):
    """The host starts a script in place of its worker, which puts the worker under the tool."""
    if shutil.which("valgrind") is None:
        return None
    place = command.index("--worker") + 1
    totals = []
    for jobs in (JOBS, 2 * JOBS):
        with tempfile.TemporaryDirectory() as directory:
            script = pathlib.Path(directory) / "worker"
            log = f"--log-file={directory}/log.%p"
            words = " ".join([*tool, log, command[place]])
            script.write_text(f'#!/bin/sh\nexec {words} "$@"\n', encoding="ascii")
            script.chmod(0o755)
            replaced = [*command[:place], str(script), *command[place + 1 :]]
            _run([*replaced, "--jobs", str(jobs)])
            logs = sorted(pathlib.Path(directory).glob("log.*"))
            totals.append(sum(read(path.read_text(encoding="ascii")) for path in logs))
    return (totals[1] - totals[0]) / JOBS


def _run(command):
    done = subprocess.run(
        command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        timeout=RUN_LIMIT_SECONDS, env=dict(os.environ, LC_ALL="C"), check=False,
    )
    if done.returncode != 0:
        sys.exit(f"bench: failed with status {done.returncode}: {' '.join(command)}\n{done.stderr}")
    return done.stderr
