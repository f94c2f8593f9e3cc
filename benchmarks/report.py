"""Turns the figures of a run into Markdown tables, and writes them and plots into a document."""

import math
import re
import statistics

NAMES = {"limit": "bare limit", "by-hand": "by hand", "ours": "ours"}


def markdown(results):
    """Everything that the run has measured, as one text."""
    parts = [section(results) for section in SECTIONS.values()]
    return "\n\n".join(part for part in parts if part)


def write_document(results, directory):
    """Replaces what stands between the markers of performance.md, and writes the plots beside it.

    What this run has not measured stays as it is.
    """
    document = directory / "performance.md"
    text = document.read_text(encoding="utf-8")
    for name, section in SECTIONS.items():
        part = section(results)
        if name == "machine" and not results["is_whole"]:
            continue  # it is the machine of all figures
        if part:
            pattern = re.compile(rf"(<!-- {name} -->\n).*?(<!-- end -->)", re.DOTALL)
            if not pattern.search(text):
                raise SystemExit(f"bench: {document} has no place for '{name}'")
            text = pattern.sub(lambda match, new=part: match[1] + new + "\n" + match[2], text)
    document.write_text(text, encoding="utf-8")
    for name, plot in PLOTS.items():
        if name in results:
            (directory / f"performance-{name}.svg").write_text(plot(results[name]), encoding="utf-8")


def table(headings, rows):
    lines = ["| " + " | ".join(headings) + " |", "|" + " --- |" * len(headings)]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines)


def figure(value):
    """Three significant digits, in full."""
    if value is None:
        return "-"
    if value == 0:
        return "0"
    decimals = max(0, 2 - math.floor(math.log10(abs(value))))
    return f"{value:,.{decimals}f}".replace(",", " ")


def machine_section(results):
    facts = ", ".join(f"{name}: {value}" for name, value in results["machine"].items())
    note = f"{results['passes']} passes"
    if results["quick"]:
        note += " (a quick run: it shows that everything works, not how fast it is)"
    return f"{facts}; {note}."


def headline_section(results):
    """What a reader is to remember, once the workloads that show it have been measured."""
    rows = {(row["name"], row["workers"]): row for row in results["comparisons"]}
    try:
        small = rows["echo64-one-processor", 1]
        large = rows["echo1m-moved", 2]
        repair = rows["repair", 1]
    except KeyError:
        return ""
    return "\n".join([
        f"- **{figure(small['medians']['ours'])} µs of processor time** for a job of 64 B, host and "
        f"worker together; the bare system calls take {figure(small['medians']['limit'])} µs.",
        f"- **{figure(large['medians']['ours'])} MB/s** of 1 MiB jobs moved through two workers and "
        f"back, {statistics.median(large['ratios']['ours']):.2f} of what the bare system calls "
        "reach.",
        f"- **{figure(repair['medians']['ours'])} ms** from the death of a worker to the next result "
        "from its replacement.",
    ])


def comparison_section(results):
    rows = results["comparisons"]
    if not rows:
        return ""
    pools = list(rows[0]["medians"])
    headings = ["workload", "workers", "unit", *(NAMES[pool] for pool in pools)]
    headings += [f"{NAMES[pool]} : limit" for pool in pools if pool != "limit"]
    headings += ["lowest to highest", "goal", "reached"]
    return table(headings, [comparison_row(row, pools) for row in rows])


def comparison_row(row, pools):
    is_difference = row["name"] == "repair"
    cells = [row["title"], row["workers"], row["unit"]]
    cells += [figure(row["medians"][pool]) for pool in pools]
    shape = "{:+.2f} ms" if is_difference else "{:.2f}"
    medians = {pool: statistics.median(ratios) for pool, ratios in row["ratios"].items()}
    cells += [shape.format(medians[pool]) for pool in pools if pool != "limit"]
    ours = row["ratios"]["ours"]
    cells.append(f"{shape.format(min(ours))} to {shape.format(max(ours))}")
    if row["name"] == "work":
        measured, goal = row["medians"]["ours"], row["goal"]
        cells += [f"{goal} efficiency", yes_or_no(measured >= goal)]
    elif is_difference:
        cells += [f"+{row['goal']} ms", yes_or_no(medians["ours"] <= row["goal"])]
    elif row["goal"] is None:
        cells += ["-", "-"]
    else:
        cells += [f"{row['goal']:.2f}", yes_or_no(medians["ours"] >= row["goal"])]
    return cells


def yes_or_no(value):
    return "yes" if value else "no"


def memory_section(results):
    rows = []
    for row in results["comparisons"]:
        if row["name"].startswith(("echo1m", "echo64m")):
            cells = [row["title"], row["workers"]]
            for pool in row["medians"]:
                host, worker = row["resident_mib"][pool]
                cells.append(f"{figure(host)} / {figure(worker)}")
            rows.append(cells)
    if not rows:
        return ""
    pools = results["comparisons"][0]["medians"]
    return table(["resident memory at rest after", "workers",
                  *(f"{NAMES[pool]}: host / largest worker, MiB" for pool in pools)], rows)


def counts_section(results):
    rows = []
    for row in results.get("counts", []):
        rows.append([
            NAMES[row["pool"]], row["workers"],
            calls(row["host_system_calls"]), calls(row["worker_system_calls"]),
            figure(row["host_instructions"]), figure(row["worker_instructions"]),
            figure(row["host_allocations"]), figure(row["worker_allocations"]),
        ])
    if not rows:
        return ""
    return table(
        ["echo 64 B, one processor, per job", "workers", "host: system calls",
         "worker: system calls", "host: instructions", "worker: instructions",
         "host: allocations", "worker: allocations"], rows)


def windows_section(results):
    rows = [[row["window"], calls(row["host_system_calls"]), figure(row["host_instructions"]),
             figure(row["host_allocations"])] for row in results.get("windows", [])]
    return rows and table(["window in use, one worker, per job", "host: system calls",
                           "host: instructions", "host: allocations"], rows)


def calls(per_name):
    if per_name is None:
        return "-"
    total = sum(per_name.values())
    parts = ", ".join(f"{name} {count:.2f}" for name, count in per_name.items())
    return f"{total:.2f} ({parts})" if parts else "0"


def sides_section(results):
    rows = [[size_text(row["bytes"]), NAMES[row["host"]], NAMES[row["worker"]],
             figure(row["host_us"]), figure(row["worker_us"])] for row in results.get("sides", [])]
    return rows and table(["echo through one worker", "host", "worker", "host: µs CPU per job",
                           "worker: µs CPU per job"], rows)


def launch_section(results):
    rows = [[row["way"], figure(row["returned_ms"]), figure(row["connected_ms"])]
            for row in results.get("launch", [])]
    return rows and table(["launch, 4 GiB resident, 16 threads", "call returns after ms",
                           "worker connected after ms"], rows)


def pump_section(results):
    rows = []
    for point in results.get("pump", []):
        workers = point["workers"]
        rows.append([workers] + [
            figure(point[name] / workers)
            for name in ("pass_us", "pass_us_caps", "waiting_pass_us", "waiting_pass_us_caps")
        ] + [figure(point["descriptors"] / workers)])
    return rows and table(
        ["busy workers", "pass, µs CPU per worker", "with both memory caps",
         "pass and wait of 1 ms, µs CPU per worker", "with both memory caps",
         "host's descriptors per worker"], rows)


def pending_section(results):
    rows = []
    for point in results.get("pending", []):
        # Below that, the memory of a process is counted too coarsely.
        memory = figure(point["bytes_per_job"]) if point["jobs"] >= 10**5 else "-"
        rows.append([f"{point['jobs']:.0f}", figure(point["push_ns"]), figure(point["run_ns"]),
                     figure(point["pop_ns"]), memory])
    return rows and table(
        ["pending jobs of 64 B", "push, ns", "pump until answered, ns CPU of the host",
         "pop, ns", "bytes of memory per job"], rows)


def payload_section(results):
    rows = [[size_text(point["bytes"]), figure(point["us_per_job"]), figure(point["ns_per_byte"]),
             figure(point["pumps_per_job"])] for point in results.get("payload", [])]
    return rows and table(["payload", "µs per job", "ns per byte", "pump calls per job"], rows)


def rest_section(results):
    rows = []
    for row in results.get("rest", []):
        sides = row["system_calls"] or {"host": None, "workers": None}
        rows.append([row["workers"], figure(row["pumps_per_s"]), figure(row["host_cpu_ms_per_s"]),
                     figure(row["worker_cpu_ms_per_s"]), calls(sides["host"]),
                     calls(sides["workers"])])
    return rows and table(
        ["two workers", "pump calls per s", "host: ms CPU per s", "workers: ms CPU per s",
         "host: system calls per s", "workers: system calls per s"], rows)


def pool_section(results):
    rows = []
    for row in results.get("pool", []):
        cpu = row["cpu_us"]
        ratios = [mine / bare for bare, mine in zip(cpu["scheduler"], cpu["pool"])]
        ratio = statistics.median(ratios)
        rows.append([size_text(row["bytes"]), *(figure(statistics.median(cpu[way])) for way in cpu),
                     f"{ratio:.2f}", f"{min(ratios):.2f} to {max(ratios):.2f}",
                     f"{row['goal']:.2f}", yes_or_no(ratio <= row["goal"])])
    return rows and table(
        ["echo, one worker, one processor", "scheduler, µs CPU per job",
         "pool, plain worker, µs", "pool, worker of runWorker(), µs", "pool : scheduler",
         "lowest to highest", "goal", "reached"], rows)


def pool_files_section(results):
    cpu = results.get("pool-files", {}).get("host_us")
    if not cpu:
        return ""
    names = {"": "nothing", "trace": "a trace", "timeline": "a timeline",
             "status": "status and metrics"}
    rows = []
    for what, times in cpu.items():
        more = statistics.median(mine - none for none, mine in zip(cpu[""], times))
        rows.append([names[what], figure(statistics.median(times)),
                     *(("", "", "") if not what else
                       (f"{more:.2f}", "2", yes_or_no(more < 2)))])
    return table(["what a pool shows, echo of 64 B", "host, µs CPU per job", "more than nothing, µs",
                  "goal: below", "reached"], rows)


def pool_costs_section(results):
    costs = results.get("pool-costs")
    if not costs:
        return ""
    parts = [table(["jobs of 64 B in the queue of a pool", "bytes of memory per job beyond payload",
                    "goal", "reached"],
                   [[f"{costs['queued']['jobs']:.0f}", figure(costs["queued"]["bytes_per_job"]),
                     "100", yes_or_no(costs["queued"]["bytes_per_job"] <= 100)]])]
    rows = []
    for processors, trip in costs["trips"].items():
        condition, pool, thread = (statistics.median(trip[through])
                                   for through in ("condition", "pool", "thread"))
        goal = pool + condition + 5
        rows.append(["one" if processors == "0" else "two", figure(condition), figure(pool),
                     figure(thread), figure(goal), yes_or_no(thread <= goal)])
    parts.append(table(
        ["one job at a time, processors", "condition variable there and back, µs",
         "job through an nqPool, µs", "through an nqPoolThread, µs",
         "goal: the sum of the two and 5 µs", "reached"], rows))
    return "\n\n".join(parts)


def size_text(count):
    for factor, unit in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if count >= factor:
            return f"{count // factor} {unit}"
    return f"{count} B"


SECTIONS = {
    "headline": headline_section,
    "machine": machine_section,
    "comparisons": comparison_section,
    "memory": memory_section,
    "counts": counts_section,
    "windows": windows_section,
    "sides": sides_section,
    "launch": launch_section,
    "pump": pump_section,
    "pending": pending_section,
    "payload": payload_section,
    "rest": rest_section,
    "pool": pool_section,
    "pool-files": pool_files_section,
    "pool-costs": pool_costs_section,
}

WIDTH, HEIGHT, LEFT, TOP, RIGHT, BOTTOM = 640, 360, 76, 40, 170, 52
COLOURS = ("#1f6fb4", "#d9730d", "#2e8b57", "#8e44ad")


def plot(title, x_title, y_title, series):
    """A chart with logarithmic axes; `series` maps a name to its points."""
    points = [point for line in series.values() for point in line]
    x_range = decades(x for x, _ in points)
    y_range = decades(y for _, y in points)

    def x_at(value):
        return LEFT + position(value, x_range) * (WIDTH - LEFT - RIGHT)

    def y_at(value):
        return HEIGHT - BOTTOM - position(value, y_range) * (HEIGHT - TOP - BOTTOM)

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
        f'font-family="sans-serif" font-size="12">',
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
        text(WIDTH / 2, 22, title, anchor="middle", size=14),
        text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 12, x_title, anchor="middle"),
        f'<g transform="translate(18 {HEIGHT / 2}) rotate(-90)">'
        + text(0, 0, y_title, anchor="middle") + "</g>",
    ]
    for power in range(x_range[0], x_range[1] + 1):
        x = x_at(10.0**power)
        parts.append(line_between(x, TOP, x, HEIGHT - BOTTOM))
        parts.append(text(x, HEIGHT - BOTTOM + 18, power_text(power), anchor="middle"))
    for power in range(y_range[0], y_range[1] + 1):
        y = y_at(10.0**power)
        parts.append(line_between(LEFT, y, WIDTH - RIGHT, y))
        parts.append(text(LEFT - 6, y + 4, power_text(power), anchor="end"))
    for number, (name, line) in enumerate(series.items()):
        colour = COLOURS[number % len(COLOURS)]
        corners = " ".join(f"{x_at(x):.1f},{y_at(y):.1f}" for x, y in line)
        parts.append(f'<polyline points="{corners}" fill="none" stroke="{colour}" '
                     'stroke-width="2"/>')
        parts += [f'<circle cx="{x_at(x):.1f}" cy="{y_at(y):.1f}" r="3" fill="{colour}"/>'
                  for x, y in line]
        y = TOP + 14 + 18 * number
        parts.append(f'<rect x="{WIDTH - RIGHT + 12}" y="{y - 9}" width="10" height="10" '
                     f'fill="{colour}"/>')
        parts.append(text(WIDTH - RIGHT + 28, y, name))
    return "\n".join([*parts, "</svg>"]) + "\n"


def decades(values):
    values = list(values)
    low = math.floor(math.log10(min(values)))
    return low, max(low + 1, math.ceil(math.log10(max(values))))


def position(value, span):
    return (math.log10(value) - span[0]) / (span[1] - span[0])


def power_text(power):
    return f"{10.0**power:g}" if -4 < power < 5 else f"1e{power}"


def text(x, y, content, anchor="start", size=12):
    escaped = content.replace("&", "&amp;").replace("<", "&lt;")
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}">'
            f"{escaped}</text>")


def line_between(x1, y1, x2, y2):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="#ddd"/>')


def lines_of(points, x_name, names):
    return {title: [(point[x_name], point[name]) for point in points]
            for title, name in names.items()}


def plot_pump(points):
    per_worker = [
        {"workers": point["workers"], "plain": point["pass_us"] / point["workers"],
         "caps": point["pass_us_caps"] / point["workers"]}
        for point in points
    ]
    return plot("One pump pass over busy workers", "workers", "µs of CPU per worker",
                lines_of(per_worker, "workers", {"no memory cap": "plain", "both caps": "caps"}))


def plot_pending(points):
    return plot("Cost of a job while others wait", "pending jobs", "ns per job",
                lines_of(points, "jobs", {"push": "push_ns", "pump until answered": "run_ns",
                                          "pop": "pop_ns"}))


def plot_payload(points):
    return plot("Echo through one worker", "payload, bytes", "ns per byte",
                lines_of(points, "bytes", {"ns per byte": "ns_per_byte"}))


PLOTS = {"pump": plot_pump, "pending": plot_pending, "payload": plot_payload}
