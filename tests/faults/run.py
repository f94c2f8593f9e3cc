#!/usr/bin/env python3
"""Runs a host with a pool once for every fault of every call that enters the kernel.

A first run without faults counts how often each call is made, in the host and in its workers. Then
each call that was made suffers each of its faults, at the first, second and fifth time, and where a
fault can last, from then on. fault_host says whether all went well. A fault that does not strike,
because the call was not made as often this time, has two more attempts; after them it is counted by
itself and proves nothing. A run in which too few faults strike fails: see complaints().
"""

import argparse
import collections
import concurrent.futures
import mmap
import os
import pathlib
import random
import re
import struct
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass

import call_sites
import faults_table

TIMES = (1, 2, 5)
WATCHDOG_SECONDS = 300  # for what takes a few, such as three bytes at a time, on a very busy machine
SAMPLE = 250  # faults of the short run beyond the first strike of each
ATTEMPTS = 3  # for a call that depends on how bytes and signals happen to arrive
LEAST_STRIKES = 0.9  # of the runs: some ask for more calls than a pool makes every time
NEVER = (1 << 32) - 1  # a call that no process gets to

# What becomes of a fault beside the outcomes that fault_host tells.
MISSED = "missed"
BAD = "bad"

# As in plan.cpp.
LIBRARIES = ("libnqSystem.so.3.0", "libnqSchedulerAPI.so.3.0")
HEADER = struct.Struct("II")  # faults put in, workers started
PLACE = struct.Struct("I")  # most calls of one process
PLACES_OF_LIBRARY = 1 << 20

# What is wrong from the outset on the poor kernel, so that the library has to take its other ways:
# an old kernel or a sandbox, no privileges, and a name that another thread's child still holds at
# the second start.
POOR_KERNEL = (
    ("syscall:SYS_pidfd_open", "ENOSYS", 1, True),
    ("getsockopt:SO_PEERPIDFD", "ENOPROTOOPT", 1, True),
    ("setsockopt:SO_SNDBUFFORCE", "EPERM", 1, True),
    ("close_range", "ENOSYS", 1, True),
    ("bind", "EADDRINUSE", 2, False),
)


@dataclass(frozen=True)
class Setting:
    """Where a fault strikes: the host's story and the kernel around it."""

    scenario: str
    kernel: str


POOL = Setting("pool", "this kernel")
BARE_POOL = Setting("bare-pool", "poor kernel")
TIMEOUT = Setting("timeout", "this kernel")
SETTINGS = (POOL, BARE_POOL, TIMEOUT)


@dataclass(frozen=True)
class Plan:
    setting: Setting
    role: str  # host or worker
    call: str  # with its operation, as in the table
    place: str
    fault: faults_table.Fault
    first: int
    lasts: bool
    label: str

    @property
    def tolerance(self):
        """A host finds sound workers again; a fault in its own process may last."""
        lasting = self.lasts and self.role == "host"
        if self.fault.tolerance == faults_table.COSTLY and lasting:
            return "lasting"
        return self.fault.tolerance

    def __str__(self):
        when = f"from call {self.first} on" if self.lasts else f"at call {self.first}"
        kernel = "" if self.setting.kernel == "this kernel" else f", {self.setting.kernel}"
        where = f"{self.role}, {self.setting.scenario}{kernel}"
        return f"{self.fault.name} {when}: {self.label} ({where})"


@dataclass
class Outcome:
    text: str
    is_good: bool
    has_struck: bool
    counts: dict  # {place: most calls of one process}


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    for file in ("shim", "system", "scheduler", "host", "worker"):
        # Resolved, since the workers that are to load the shim start in another folder.
        parser.add_argument(f"--{file}", type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.add_argument("--list", action="store_true", help="print the calls, run nothing")
    parser.add_argument("--all", action="store_true", help="the whole table")
    parser.add_argument("--only", default="", help="faults whose line matches this pattern")
    parser.add_argument("--jobs", type=int, default=2 * len(os.sched_getaffinity(0)))
    parser.add_argument("--seed", type=int, default=None, help="of the short run's sample")
    parser.add_argument("--disarmed", action="store_true", help="no fault strikes: this has to fail")
    parser.add_argument("--verbose", action="store_true", help="print every fault and its outcome")
    return parser.parse_args()


class Machine:
    """Runs the fault host."""

    def __init__(self, options, sites, folder):
        self.options = options
        self.sites = sites
        self.folder = folder

    def run(self, setting, tolerance, role="", directive=""):
        descriptor, report = tempfile.mkstemp(dir=self.folder)
        os.truncate(descriptor, HEADER.size + len(LIBRARIES) * PLACES_OF_LIBRARY * PLACE.size)
        environment = dict(
            os.environ,
            LD_PRELOAD=f"{self.options.shim}:{self.options.system}",
            NQ_FAULT_HOST=directive if role == "host" else "",
            NQ_FAULT_WORKER=directive if role == "worker" else "",
            NQ_FAULT_KERNEL=self.traits_of(setting.kernel),
            NQ_FAULT_REPORT=report,
            NQ_FAULT_COUNT=role,
        )
        try:
            text, is_good = self.run_host(environment, setting.scenario, tolerance)
            with mmap.mmap(descriptor, 0, access=mmap.ACCESS_READ) as memory:
                injections, _ = HEADER.unpack_from(memory, 0)
                counts = self.read_counts(memory)
            return Outcome(text, is_good, injections > 0, counts)
        finally:
            os.close(descriptor)
            os.unlink(report)

    def traits_of(self, kernel):
        if kernel == "this kernel":
            return ""
        return ";".join(
            directive_of(site.place, fault, first, lasts)
            for site in self.sites
            for key, error, first, lasts in POOR_KERNEL
            for fault in faults_table.FAULTS[key]
            if key == site.key and fault.name == error
        )

    def run_host(self, environment, scenario, tolerance):
        command = [self.options.host, self.options.worker, scenario, tolerance]
        host = subprocess.Popen(
            command,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
        )
        try:
            output, _ = host.communicate(timeout=WATCHDOG_SECONDS)
        except subprocess.TimeoutExpired:
            host.kill()
            output, _ = host.communicate()
            return f"hangs; it said: {output.strip()}", False
        lines = output.split("\n")
        outcome = next((line[9:] for line in lines if line.startswith("outcome: ")), "")
        if host.returncode == 0 and outcome and "over" in lines:
            return outcome, True
        return f"ended with {host.returncode}; it said: {output.strip()}", False

    def read_counts(self, memory):
        counts = {}
        for site in self.sites:
            index = LIBRARIES.index(site.library) * PLACES_OF_LIBRARY + site.returns_to
            counts[site.place] = PLACE.unpack_from(memory, HEADER.size + index * PLACE.size)[0]
        return counts


def directive_of(place, fault, first, lasts):
    return f"{place} -1 {first} {0 if lasts else 1} {fault.action} {fault.value}"


def faults_of(site):
    name = faults_table.selector_name(site.call, site.selector)
    return faults_table.faults_of(site.call, name, site.functions)


def plans_for(setting, role, site, most_calls, times=TIMES):
    """Each fault once before any of them a second time."""
    for first in times:
        if first <= most_calls:
            for fault in faults_of(site):
                for lasts in fault.lasts:
                    yield Plan(setting, role, site.key, site.place, fault, first, lasts, str(site))


def record(machine, setting):
    """How often each call is made: {role: {place: count}}."""
    counts = {}
    for role in ("host", "worker"):
        outcome = machine.run(setting, "transparent", role)
        if not outcome.is_good or outcome.text != "answered":
            sys.exit(f"faults: without any fault, {setting}: {outcome.text}")
        counts[role] = outcome.counts
    return counts


def make_plans(machine, sites):
    """The plans, and the calls that nothing reaches."""
    plans = []
    reached = set()
    for setting in SETTINGS:
        counts = record(machine, setting)
        for role in ("host", "worker"):
            for site in sites:
                count = counts[role][site.place]
                key = (role, site.place)
                # Another setting tells nothing new about a call that the first one reaches, but
                # for the time-out, whose end of a worker is run through once more.
                if count == 0 or (key in reached and setting is not TIMEOUT):
                    continue
                times = (1,) if key in reached else TIMES
                plans += plans_for(setting, role, site, count, times)
        reached |= {
            (role, place) for role in counts for place, count in counts[role].items() if count
        }
    places = {place for _, place in reached}
    unreached = [site for site in sites if site.place not in places]
    return plans, unreached, reached


def short_run(plans, seed):
    """Each fault of each call once, and a sample of the others."""
    once = [
        plan for plan in plans if plan.first == 1 and not plan.lasts and plan.setting is not TIMEOUT
    ]
    chosen = set(once)
    others = [plan for plan in plans if plan not in chosen and plan.setting is not TIMEOUT]
    return once + random.Random(seed).sample(others, min(SAMPLE, len(others)))


def run_plans(machine, plans, options):
    """The outcome of each plan, in order, as they come."""

    def run(plan):
        first = NEVER if options.disarmed else plan.first
        directive = directive_of(plan.place, plan.fault, first, plan.lasts)
        for _ in range(ATTEMPTS):
            outcome = machine.run(plan.setting, plan.tolerance, plan.role, directive)
            if outcome.has_struck or not outcome.is_good:
                break
        return outcome

    kinds = []
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for plan, outcome in zip(plans, pool.map(run, plans)):
            kind = outcome.text if outcome.has_struck else MISSED
            if not outcome.is_good:
                kind = BAD
            kinds.append(kind)
            if not outcome.is_good:
                print(f"BAD: {plan}: {outcome.text}", flush=True)
            elif options.verbose:
                print(f"{kind}: {plan}", flush=True)
    return kinds


def complaints(plans, kinds, are_chosen):
    """Why a run proves too little. Chosen faults all have to strike; otherwise most, and of each
    call every fault at some place."""
    if not plans:
        return ["there is nothing to run"]
    missed = [plan for plan, kind in zip(plans, kinds) if kind == MISSED]
    if are_chosen:
        return [f"did not strike: {plan}" for plan in missed]
    struck = {
        (plan.call, plan.fault.name) for plan, kind in zip(plans, kinds) if kind != MISSED
    }
    never = sorted({(plan.call, plan.fault.name) for plan in missed} - struck)
    found = [f"strikes nowhere: {fault} of {call}" for call, fault in never]
    if len(plans) - len(missed) < LEAST_STRIKES * len(plans):
        found.append(f"only {len(plans) - len(missed)} of {len(plans)} faults struck")
    return found


def check_shim(shim, sites):
    missing = {site.call for site in sites} - call_sites.exports_of(shim)
    if missing:
        sys.exit(f"faults: the shim does not stand before {', '.join(sorted(missing))}")


def main():
    options = parse_arguments()
    start = time.monotonic()
    try:
        sites = call_sites.call_sites(options.system) + call_sites.call_sites(options.scheduler)
    except call_sites.Unknown as unknown:
        sys.exit(f"faults: {unknown}")
    sites = [site for site in sites if faults_of(site)]
    check_shim(options.shim, sites)
    possible = sum(len(faults_of(site)) for site in sites)
    if options.list:
        for site in sites:
            print(f"{site}: {', '.join(fault.name for fault in faults_of(site))}")
        print(f"faults: {len(sites)} calls, {possible} pairs of call and fault")
        return 0

    with tempfile.TemporaryDirectory(prefix="faults_") as folder:
        machine = Machine(options, sites, folder)
        plans, unreached, reached = make_plans(machine, sites)
        total = len(plans)
        seed = random.randrange(1 << 32) if options.seed is None else options.seed
        if options.only:
            plans = [plan for plan in plans if re.search(options.only, str(plan))]
        elif not options.all:
            plans = short_run(plans, seed)
            print(f"faults: a sample with --seed {seed}; --all runs all {total}")
        kinds = run_plans(machine, plans, options)

    for site in unreached:
        print(f"never made: {site}")
    print(
        f"faults: {len(sites)} calls, {len(sites) - len(unreached)} of them made "
        f"({sum(role == 'host' for role, _ in reached)} in the host, "
        f"{sum(role == 'worker' for role, _ in reached)} in workers); "
        f"{possible} pairs of call and fault"
    )
    counts = sorted(collections.Counter(kinds).items())
    outcomes = ", ".join(f"{kind}: {count}" for kind, count in counts)
    print(f"faults: {len(plans)} runs in {time.monotonic() - start:.0f} s: {outcomes}")
    too_little = complaints(plans, kinds, are_chosen=bool(options.only))
    for complaint in too_little:
        print(f"faults: {complaint}")
    return 1 if too_little or BAD in kinds else 0


if __name__ == "__main__":
    sys.exit(main())
