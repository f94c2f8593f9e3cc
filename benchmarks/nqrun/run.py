#!/usr/bin/env python3
"""How fast nqrun starts commands beside xargs and GNU parallel, and what memory it takes.

usage: run.py speed NQRUN [--items N] [--passes N]
       run.py memory NQRUN [--items N] [--worker PROGRAM]

The programs take turns within each pass, on `true` with two at a time. A figure is the median of all
passes, a ratio the median of the ratios within each pass. Memory is that of nqrun itself and of all its
processes but the commands, at a hundredth of the items and at the end. With a worker program the way of an
item through nqrun is the same but for the command, and a million of them takes a minute.
"""
import argparse
import pathlib
import shutil
import statistics
import subprocess
import tempfile
import time

JOBS = "2"


def seconds(command, items):
    with tempfile.TemporaryFile() as stdin:
        stdin.write(items)
        stdin.seek(0)
        start = time.monotonic()
        subprocess.run(command, stdin=stdin, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
        return time.monotonic() - start


def lines(count):
    return b"".join(b"%d\n" % number for number in range(count))


def speed(options):
    commands = {"xargs": ["xargs", "-n1", "-P" + JOBS, "true"], "nqrun": [options.nqrun, "-j" + JOBS, "true"]}
    # A quarter of the items for the slow one: its start is a small part of its time still.
    parallel = ["parallel", "--will-cite", "-j" + JOBS, "true"]
    rates = {name: [] for name in (*commands, "parallel")}
    for _ in range(options.passes):
        for name, command in commands.items():
            rates[name].append(options.items / seconds(command, lines(options.items)))
        if shutil.which("parallel"):
            few = max(options.items // 4, 10)
            rates["parallel"].append(few / seconds(parallel, lines(few)))
    for name, found in rates.items():
        if found:
            print(f"{name}: {statistics.median(found):.0f} commands a second")
    for name in ("xargs", "parallel"):
        ratios = [ours / theirs for ours, theirs in zip(rates["nqrun"], rates[name])]
        if ratios:
            print(f"nqrun / {name}: {statistics.median(ratios):.2f} ({min(ratios):.2f} to {max(ratios):.2f})")


def resident_kib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def supervisors(nqrun, pid):
    """nqrun, its workers and their keepers: all processes below it that run its file."""
    file = pathlib.Path(nqrun).resolve()
    found, todo = [], [pid]
    while todo:
        process = todo.pop()
        try:
            if pathlib.Path(f"/proc/{process}/exe").resolve() == file:
                found.append(process)
                children = pathlib.Path(f"/proc/{process}/task/{process}/children").read_text()
                todo += [int(child) for child in children.split()]
        except OSError:
            pass
    return found


def memory(options):
    """Writes the items into a pipe, so that what was taken from it tells how far nqrun is."""
    what = ["--worker", options.worker] if options.worker else ["true"]
    command = [options.nqrun, "-q", "-k", "-j" + JOBS, *what]
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    start = time.monotonic()

    def report(written):
        all_of_them = [resident_kib(pid) for pid in supervisors(options.nqrun, process.pid)]
        print(
            f"{written} items: nqrun {resident_kib(process.pid)} KiB, with workers and keepers {sum(all_of_them)} KiB,"
            f" {time.monotonic() - start:.0f} s",
            flush=True,
        )

    for number in range(1, options.items + 1):
        process.stdin.write(b"%0100d\n" % number)  # long, so that few of them fit into the pipe
        if number in (options.items // 100, options.items // 10, options.items // 2):
            process.stdin.flush()
            report(number)
    process.stdin.flush()
    report(options.items)
    process.stdin.close()
    raise SystemExit(process.wait())


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=("speed", "memory"))
    parser.add_argument("nqrun")
    parser.add_argument("--items", type=int)
    parser.add_argument("--worker")
    parser.add_argument("--passes", type=int, default=5)
    options = parser.parse_args()
    options.items = options.items or (4000 if options.what == "speed" else 1_000_000)
    speed(options) if options.what == "speed" else memory(options)


if __name__ == "__main__":
    main()
