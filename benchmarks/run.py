#!/usr/bin/env python3
"""Runs the benchmark programs and prints their figures as Markdown.

The pools take turns within each pass, so that a machine whose speed changes meanwhile is unfair to
none of them. A figure is the median of all passes; a ratio is the median of the ratios within each
pass, and 1.00 means as good as the bare limit, less means worse.
"""

import argparse
import itertools
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile

import counts
import report

POOLS = ("limit", "by-hand", "ours")
KIB, MIB = 1 << 10, 1 << 20
RUN_LIMIT_SECONDS = 900  # reached only by a program that hangs
WORK_NS = 1_000_000  # processor time of a "work" job

# Name, title, bytes, jobs of a run, and the goals with one worker and with two, for jobs that are
# copied into the queue and for jobs that are moved. With fewer jobs the ratios scatter by 15 %.
PAYLOADS = (
    ("echo16k", "16 KiB", 16 * KIB, 20_000, (None, None), (None, None)),
    ("echo64k", "64 KiB", 64 * KIB, 10_000, (None, None), (None, None)),
    ("echo1m", "1 MiB", MIB, 2_000, (0.65, 0.75), (0.9, 0.85)),
    ("echo64m", "64 MiB", 64 * MIB, 20, (0.6, 0.55), (0.85, 0.8)),
)


class Runner:
    """Starts the programs of one build."""

    def __init__(self, build, quick):
        self.directory = pathlib.Path(build).resolve() / "benchmarks"
        self.quick = quick
        self.pools = [pool for pool in POOLS if self.program(pool).exists()]

    def program(self, name):
        return self.directory / f"bench-{name}"

    def worker(self, pool):
        return self.program(pool).with_name(self.program(pool).name + "-worker")

    def command(self, name, worker, options):
        words = [str(self.program(name)), *options.pop("verb", []), "--worker", str(worker)]
        for option, value in options.items():
            words += ["--" + option.replace("_", "-"), str(value)]
        return words

    def run(self, name, worker_of, **options):
        """The program's figures: the last line that it prints."""
        command = self.command(name, self.worker(worker_of), options)
        done = subprocess.run(
            command, stdout=subprocess.PIPE, text=True, timeout=RUN_LIMIT_SECONDS, check=False,
        )
        if done.returncode != 0:
            sys.exit(f"bench: failed with status {done.returncode}: {' '.join(command)}")
        return json.loads(done.stdout.splitlines()[-1])


class Comparison:
    """One row of the main table: a workload that every pool runs."""

    def __init__(self, name, title, unit, workers, options, jobs, figure, goal, lower_is_better):
        self.name = name
        self.title = title
        self.unit = unit
        self.workers = workers
        self.options = options
        self.jobs = jobs
        self.figure = figure
        self.goal = goal
        self.lower_is_better = lower_is_better

    def measure(self, runner, passes):
        pools = runner.pools
        figures = {pool: [] for pool in pools}
        memory = {pool: [] for pool in pools}
        jobs = max(2, self.jobs // 20) if runner.quick else self.jobs
        for number in range(passes):
            turn = number % len(pools)
            for pool in pools[turn:] + pools[:turn]:
                options = dict(self.options, workers=self.workers, jobs=jobs)
                result = runner.run(pool, self.worker_of(pool), **options)
                figures[pool].append(self.figure(result))
                memory[pool].append([result.get("host_resident_bytes", 0),
                                     result.get("worker_resident_bytes", 0)])
        return {
            "name": self.name,
            "title": self.title,
            "unit": self.unit,
            "workers": self.workers,
            "jobs": jobs,
            "goal": self.goal,
            "figures": figures,
            "resident_mib": {
                pool: [statistics.median(side) / MIB for side in zip(*values)]
                for pool, values in memory.items()
            },
            "medians": {pool: statistics.median(values) for pool, values in figures.items()},
            "ratios": {pool: self.ratios(figures, pool) for pool in pools if pool != "limit"},
        }

    def worker_of(self, pool):
        return pool

    def ratios(self, figures, pool):
        pairs = zip(figures["limit"], figures[pool])
        if self.lower_is_better:
            return [limit / mine for limit, mine in pairs]
        return [mine / limit for limit, mine in pairs]


class Repair(Comparison):
    """The bare limit starts the library's own worker, so that both load the same libraries."""

    def worker_of(self, pool):
        return "ours" if pool == "limit" else pool

    def ratios(self, figures, pool):
        return [mine - limit for limit, mine in zip(figures["limit"], figures[pool])]


def cpu_microseconds_per_job(result):
    return (result["host_cpu_ns"] + result["worker_cpu_ns"]) / result["jobs"] / 1e3


def jobs_per_second(result):
    return result["jobs"] / result["wall_ns"] * 1e9


def megabytes_per_second(result):
    return result["jobs"] * result["bytes"] / result["wall_ns"] * 1e3


def efficiency(result):
    processors = min(result["workers"], 2)
    return result["jobs"] * WORK_NS / (result["wall_ns"] * processors)


def milliseconds_to_repair(result):
    return statistics.median(result["repair_ns"]) / 1e6


def comparisons():
    one, two = {"processors": "0"}, {"processors": "0,1"}
    rows = []
    for workers in (1, 2, 4):
        rows.append(
            Comparison("echo64-one-processor", "echo 64 B, one processor", "µs CPU/job", workers,
                       dict(one, bytes=64), 100_000, cpu_microseconds_per_job, 0.75, True))
    for workers, goal in ((1, 1.0), (2, 1.0), (4, 0.95)):
        rows.append(
            Comparison("echo64-two-processors", "echo 64 B, two processors", "jobs/s", workers,
                       dict(two, bytes=64), 40_000, jobs_per_second, goal, False))
    for name, title, size, jobs, copied_goals, moved_goals in PAYLOADS:
        for suffix, manner, moves, goals in (("", "copied", 0, copied_goals),
                                             ("-moved", "moved", 1, moved_goals)):
            for workers, goal in zip((1, 2), goals):
                rows.append(
                    Comparison(name + suffix, f"echo {title}, {manner}", "MB/s", workers,
                               dict(two, bytes=size, moves_jobs=moves), jobs,
                               megabytes_per_second, goal, False))
    rows.append(
        Comparison("work", "jobs of 1 ms CPU, two processors", "efficiency", 2,
                   dict(two, bytes=64, kind="work"), 1_500, efficiency, 0.99, False))
    rows.append(
        Repair("repair", "repair after a death", "ms", 1, dict(two, kind="repair"), 30,
               milliseconds_to_repair, 1.5, True))
    return rows


def measure_launch(runner, passes):
    """Launching from a host with 4 GiB of memory and 16 threads."""
    ways = ("fork", "posix_spawn", "ours")
    returned = {way: [] for way in ways}
    connected = {way: [] for way in ways}
    for _ in range(passes):
        for way in ways:
            result = runner.run("launch", "ours", how=way, threads=16,
                                resident_mib=256 if runner.quick else 4096, rounds=10)
            returned[way].append(statistics.median(result["returned_ns"]) / 1e6)
            connected[way].append(statistics.median(result["connected_ns"]) / 1e6)
    return [
        {"way": way, "returned_ms": statistics.median(returned[way]),
         "connected_ms": statistics.median(connected[way])}
        for way in ways
    ]


def medians_of(results):
    """One record with the median of each field."""
    return {field: statistics.median(result[field] for result in results) for field in results[0]}


def measure_pump(runner, passes):
    points = []
    for workers in (1, 4, 16, 64, 256):
        point = {"workers": workers}
        for caps in (0, 1):
            result = medians_of([
                runner.run("growth", "ours", verb=["pump"], workers=workers, caps=caps,
                           passes=2_000 if runner.quick else 40_000)
                for _ in range(passes)
            ])
            suffix = "_caps" if caps else ""
            point["pass_us" + suffix] = result["pass_ns"] / 1e3
            point["waiting_pass_us" + suffix] = result["waiting_pass_ns"] / 1e3
            point["descriptors"] = result["descriptors"]
        points.append(point)
    return points


def measure_pending(runner, passes):
    largest = 10**6 if runner.quick else 10**7
    return [
        medians_of([
            runner.run("growth", "ours", verb=["pending"], jobs=jobs, processors="0",
                       at_least=1_000 if runner.quick else 50_000)
            for _ in range(passes)
        ])
        for jobs in (10, 10**4, 10**6, 10**7) if jobs <= largest
    ]


def measure_payload(runner, passes):
    largest = 16 * MIB if runner.quick else 512 * MIB
    sizes = (1, 64, KIB, 16 * KIB, 64 * KIB, 256 * KIB, MIB, 4 * MIB, 16 * MIB, 64 * MIB, 512 * MIB)
    points = []
    for size in sizes:
        if size > largest:
            continue
        jobs = max(1, min(2_000, 256 * MIB // size // (20 if runner.quick else 1)))
        result = medians_of([
            runner.run("growth", "ours", verb=["payload"], bytes=size, jobs=jobs,
                       processors="0,1")
            for _ in range(passes)
        ])
        points.append({
            "bytes": size,
            "us_per_job": result["wall_ns"] / jobs / 1e3,
            "ns_per_byte": result["wall_ns"] / jobs / size,
            "pumps_per_job": result["pumps"] / jobs,
        })
    return points


def measure_rest(runner, _passes):
    rows = []
    for busy in (0, 1):
        seconds = 2 if runner.quick else 5
        options = {"verb": ["rest"], "workers": 2, "busy": busy}
        result = runner.run("growth", "ours", **dict(options), seconds=seconds)
        wall_seconds = result["wall_ns"] / 1e9
        command = runner.command("growth", runner.worker("ours"),
                                 dict(options, seconds=seconds + 2))
        rows.append({
            "workers": "busy" if busy else "idle",
            "pumps_per_s": result["pumps"] / wall_seconds,
            "host_cpu_ms_per_s": result["host_cpu_ns"] / wall_seconds / 1e6,
            "worker_cpu_ms_per_s": result["worker_cpu_ns"] / wall_seconds / 1e6,
            "system_calls": counts.system_calls_at_rest(command, seconds),
        })
    return rows


def counting_command(runner, pool, workers, **more):
    options = {"workers": workers, "processors": "0", "warm_up": 50, "bytes": 64, "only_run": 1}
    return runner.command(pool, runner.worker(pool), dict(options, **more))


def host_counts(command):
    return {
        "host_system_calls": counts.system_calls_per_job(command, "host"),
        "host_instructions": counts.instructions_per_job(command),
        "host_allocations": counts.allocations_per_job(command),
    }


def measure_counts(runner, _passes):
    rows = []
    for workers in (1, 2, 4):
        for pool in runner.pools:
            command = counting_command(runner, pool, workers)
            rows.append({
                "pool": pool,
                "workers": workers,
                **host_counts(command),
                "worker_system_calls": counts.system_calls_per_job(command, "worker"),
                "worker_instructions": counts.worker_instructions_per_job(command),
                "worker_allocations": counts.worker_allocations_per_job(command),
            })
    return rows


def measure_windows(runner, _passes):
    """What a host pays that looks into the pool."""
    rows = []
    for title, options in (("none", {}), ("an observer", {"observed": 1}),
                           ("waits in epoll", {"epoll": 1}),
                           ("both", {"observed": 1, "epoll": 1})):
        command = counting_command(runner, "ours", 1, **options)
        rows.append({"window": title, **host_counts(command)})
    return rows


def measure_pool(runner, passes):
    """What the pool library adds to the scheduler, in turns on one processor."""
    rows = []
    for size, jobs, goal in ((64, 50_000, 1.10), (64 * KIB, 5_000, 1.03), (MIB, 500, 1.03)):
        ways = {
            "scheduler": ("ours", "ours", {}),
            "pool": ("pool", "ours", {"plain": 1}),
            "run_worker": ("pool", "pool", {}),
        }
        cpu = {way: [] for way in ways}
        for number in range(passes):
            order = list(ways)
            for way in order[number % 3 :] + order[: number % 3]:
                name, worker, options = ways[way]
                result = runner.run(name, worker, bytes=size, processors="0", moves_jobs=1,
                                    jobs=max(2, jobs // 20 if runner.quick else jobs), **options)
                cpu[way].append(cpu_microseconds_per_job(result))
        rows.append({"bytes": size, "goal": goal, "cpu_us": cpu})
    return rows


def measure_pool_files(runner, passes):
    """What the files cost that show a pool, in turns on one processor."""
    shown = ("", "trace", "timeline", "status")
    cpu = {what: [] for what in shown}
    with tempfile.TemporaryDirectory() as folder:
        for number in range(passes):
            turn = number % len(shown)
            for what in shown[turn:] + shown[:turn]:
                options = {"shown": what, "folder": folder} if what else {}
                result = runner.run("pool", "ours", plain=1, bytes=64, processors="0", moves_jobs=1,
                                    jobs=2_500 if runner.quick else 50_000, **options)
                cpu[what].append(result["host_cpu_ns"] / result["jobs"] / 1e3)
    return {"host_us": cpu}


def measure_pool_costs(runner, passes):
    queued = medians_of([
        runner.run("pool-costs", "ours", verb=["queued"], plain=1,
                   jobs=10**5 if runner.quick else 10**6)
        for _ in range(passes)
    ])
    trips = {}
    for processors in ("0", "0,1"):
        trips[processors] = {"condition": [], "pool": [], "thread": []}
        for _ in range(passes):
            for through, medians in trips[processors].items():
                result = runner.run("pool-costs", "ours", verb=["round-trip"], plain=1,
                                    through=through, processors=processors,
                                    trips=1_000 if runner.quick else 20_000)
                medians.append(result["median_ns"] / 1e3)
    return {"queued": queued, "trips": trips}


def measure_sides(runner, passes):
    """Each host with each worker: all of them speak the same frames."""
    rows = []
    for size, jobs in ((64, 40_000), (MIB, 500), (16 * MIB, 20)):
        for host, worker in itertools.product(("limit", "ours"), repeat=2):
            results = [
                runner.run(host, worker, bytes=size, jobs=max(2, jobs // 20 if runner.quick else jobs),
                           processors="0" if size == 64 else "0,1")
                for _ in range(passes)
            ]
            row = {"bytes": size, "host": host, "worker": worker}
            for side in ("host", "worker"):
                row[side + "_us"] = statistics.median(
                    result[side + "_cpu_ns"] / result["jobs"] / 1e3 for result in results)
            rows.append(row)
    return rows


GROUPS = {
    "sides": measure_sides,
    "counts": measure_counts,
    "windows": measure_windows,
    "launch": measure_launch,
    "pump": measure_pump,
    "pending": measure_pending,
    "payload": measure_payload,
    "rest": measure_rest,
    "pool": measure_pool,
    "pool-files": measure_pool_files,
    "pool-costs": measure_pool_costs,
}


def read_first(path):
    try:
        return pathlib.Path(path).read_text(encoding="ascii").strip()
    except OSError:
        return "unknown"


def machine():
    model = "unknown processor"
    for line in read_first("/proc/cpuinfo").splitlines():
        if line.startswith("model name"):
            model = line.split(":", 1)[1].strip()
            break
    compiler = subprocess.run(["c++", "-dumpfullversion"], stdout=subprocess.PIPE, text=True,
                              check=False).stdout.strip()
    return {
        "processor": model,
        "processors": os.cpu_count(),
        "kernel": platform.release(),
        "compiler": "g++ " + compiler,
        "net.core.wmem_max": read_first("/proc/sys/net/core/wmem_max"),
        "privileged": os.geteuid() == 0,
        "load at start": " ".join(read_first("/proc/loadavg").split()[:3]),
    }


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release", help="the build directory")
    parser.add_argument("--only", action="append", default=[], metavar="NAME",
                        help="workloads whose name begins so; may be given several times")
    parser.add_argument("--passes", type=int, help="five, unless --quick is given")
    parser.add_argument("--quick", action="store_true",
                        help="one pass over few jobs: shows that it works, not how fast")
    parser.add_argument("--list", action="store_true", help="print the names and leave")
    parser.add_argument("--save", metavar="FILE", help="write all figures as JSON")
    parser.add_argument("--document", metavar="DIRECTORY",
                        help="also write tables and plots into DIRECTORY/performance.md")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    rows = comparisons()
    names = list(dict.fromkeys(row.name for row in rows)) + list(GROUPS)
    if arguments.list:
        print("\n".join(names))
        return
    for prefix in arguments.only:
        if not any(name.startswith(prefix) for name in names):
            sys.exit(f"bench: no workload is named {prefix}; there are: {', '.join(names)}")

    def is_wanted(name):
        return not arguments.only or any(name.startswith(prefix) for prefix in arguments.only)

    runner = Runner(arguments.build, arguments.quick)
    if "by-hand" not in runner.pools:
        print("bench: Boost.Asio is not installed; the pool written by hand is left out",
              file=sys.stderr)
    passes = arguments.passes or (1 if arguments.quick else 5)
    results = {"machine": machine(), "passes": passes, "quick": arguments.quick,
               "is_whole": not arguments.only, "comparisons": []}
    for row in rows:
        if is_wanted(row.name):
            print(f"bench: {row.title}, {row.workers} workers", file=sys.stderr)
            results["comparisons"].append(row.measure(runner, passes))
    for name, measure in GROUPS.items():
        if is_wanted(name):
            print(f"bench: {name}", file=sys.stderr)
            results[name] = measure(runner, passes)

    print(report.markdown(results))
    if arguments.save:
        pathlib.Path(arguments.save).write_text(json.dumps(results, indent=1), encoding="utf-8")
    if arguments.document:
        report.write_document(results, pathlib.Path(arguments.document))


if __name__ == "__main__":
    main()
