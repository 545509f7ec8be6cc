"""Tables and the plot of what scripts/bench has measured."""

import itertools
import os
import pathlib
import re
import shutil
import statistics
import subprocess
import time

# The daemon's ratio to the baseline: what, which measure, "at most" or "at least".
TARGETS = [
    *[(f"fan-out to the last of {n} hosts, µs", f"fanout/{n}/last_us", "<=", 1.0)
      for n in (16, 128, 512)],
    *[(f"CPU per delivery, {n} hosts, µs", f"fanout/{n}/cpu_us", "<=", 0.95)
      for n in (16, 128, 512)],
    ("start_mirror per second, 1 caller", "unary/start_mirror/1/per_second", ">=", 1.07),
    ("start_mirror per second, 8 callers", "unary/start_mirror/8/per_second", ">=", 1.10),
    ("whole handshakes per second, 8 at once", "handshakes/8/per_second", ">=", 0.95),
    ("from start_mirror to the caller's answer, µs", "wake/release_us", "<=", 1.08),
    ("memory (RSS) at rest, KiB", "hold/0/rss_kib", "<=", 0.8),
    ("memory with 900 hosts, KiB", "hold/900/rss_kib", "<=", 0.92),
    ("memory after 2,400 reconnects, KiB", "reconnects/2400/rss_kib", "<=", 0.6),
    ("start-up, ms", "startup_ms", "<=", 0.8),
    ("LUN lookups per second, 256 LUNs", "lookup/256/per_second", ">=", 2.5),
    ("LUN lookups per second, 1024 LUNs", "lookup/1024/per_second", ">=", 2.5),
]
# How much longer than the split a host may be frozen: in ms, for 1 and for 8 LUNs; and this part of the
# split in addition.
FROZEN = {1: 15, 8: 30}
FROZEN_PART = 0.1
IDLE = ("CPU at rest with 900 hosts, %", "hold/900/idle_cpu_percent", 0.1)
SERVERS = ["daemon", "baseline", "baseline_bare", "mosquitto", "nats"]


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return {"cpu": cpu.group(1) if cpu else "unknown", "cores": os.cpu_count(),
            "kernel": os.uname().release,
            "date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())}


def summary(rounds):
    """By measure and server: the median of each round's samples; and the 99th percentile of all, if
    the rounds have more than one sample each."""
    def summed_up(of_rounds):
        samples = list(itertools.chain(*of_rounds))
        p99 = None
        if len(samples) > len(of_rounds):
            p99 = statistics.quantiles(samples, n=100, method="inclusive")[98]
        return {"rounds": [statistics.median(each) for each in of_rounds], "p99": p99}

    return {measure: {server: summed_up(of_rounds) for server, of_rounds in of.items()}
            for measure, of in rounds.items()}


def median(results, measure, server):
    """None when it was not measured."""
    measured = results.get(measure, {}).get(server)
    return statistics.median(measured["rounds"]) if measured else None


def median_ratio(results, measure):
    """Round by round: what disturbed one of the two disturbed its neighbour too."""
    of = results.get(measure, {})
    if "daemon" not in of or "baseline" not in of:
        return None
    pairs = [a / b for a, b in zip(of["daemon"]["rounds"], of["baseline"]["rounds"]) if b]
    return statistics.median(pairs) if pairs else None


def figure(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def cell(results, measure, server):
    text = figure(median(results, measure, server))
    p99 = results[measure][server]["p99"] if text else None
    return f"{text} ({figure(p99)})" if p99 else text


def target_rows(results):
    rows = []
    for what, measure, way, limit in TARGETS:
        ratio = median_ratio(results, measure)
        if ratio is None:
            continue
        met = ratio <= limit if way == "<=" else ratio >= limit
        rows.append([what, cell(results, measure, "daemon"), cell(results, measure, "baseline"),
                     f"{ratio:.2f}", f"{'≤' if way == '<=' else '≥'} {limit}",
                     "yes" if met else "NO"])
    for measure in sorted(m for m in results if m.startswith("frozen/")):
        luns, split = int(measure.split("/")[1]), float(measure.split("/")[2])
        limit = FROZEN[luns] + 1e3 * FROZEN_PART * split
        rows.append([f"host frozen beyond a split of {split:g} s, LUNs: {luns}, ms",
                     cell(results, measure, "daemon"), cell(results, measure, "baseline"), "",
                     f"≤ {limit:g}", "yes" if median(results, measure, "daemon") <= limit else "NO"])
    what, measure, limit = IDLE
    if measure in results:
        used = median(results, measure, "daemon")
        rows.append([what, cell(results, measure, "daemon"), cell(results, measure, "baseline"), "",
                     "nil", "yes" if used < limit else "NO"])
    return rows


def all_rows(results):
    rows = []
    for measure in results:
        ratio = median_ratio(results, measure)
        rows.append([measure, "" if ratio is None else f"{ratio:.2f}",
                     *[cell(results, measure, server) for server in SERVERS]])
    return rows


def text_table(head, rows):
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
    return "".join("  ".join(word.ljust(width) if i == 0 else word.rjust(width)
                             for i, (word, width) in enumerate(zip(row, widths))).rstrip() + "\n"
                   for row in [head, *rows])


def markdown_table(head, rows):
    lines = [head, ["---", *["--:"] * (len(head) - 1)], *rows]
    return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def plot_fanout(results, path):
    """The time to the last host, at the numbers of hosts at which all servers were measured."""
    titles = {"daemon": "daemon", "baseline": "baseline: a bare gRPC server, with the same logging",
              "baseline_bare": "baseline that logs nothing", "mosquitto": "mosquitto (MQTT)",
              "nats": "NATS"}
    curves, data = [], ""
    for server, title in titles.items():
        points = [(hosts, took / 1e3) for hosts in (1, 10, 100, 500, 900)
                  if (took := median(results, f"fanout/{hosts}/last_us", server))]
        if points:
            curves.append(f"'-' with linespoints lw 2 pt 7 ps 0.5 title '{title}'")
            data += "".join(f"{x} {y}\n" for x, y in points) + "e\n"
    if curves:
        subprocess.run(["gnuplot"], input=(
            "set terminal svg size 760,420 dynamic font 'sans-serif,13' background 'white'\n"
            f"set output '{path}'\nset grid lc rgb '#dddddd'\nset key left top\nset border 3\n"
            "set tics nomirror\nset logscale xy\nset xrange [0.9:1100]\nset xlabel 'hosts'\n"
            "set ylabel 'ms from the announcement to the last host'\n"
            f"plot {', '.join(curves)}\n{data}"), text=True, check=True)


def write(document, out, root):
    results, where = document["results"], document["machine"]
    origin = (f"{where['date']}, {where['cores']} cores of {where['cpu']}, Linux {where['kernel']}, "
              f"{document['seconds']} s")
    targets = ["Target", "Daemon", "Baseline", "Ratio", "Wanted", "Met"]
    table = (text_table(targets, target_rows(results)) + "\n" +
             text_table(["All measures", "Ratio", *SERVERS], all_rows(results)) +
             f"\nMedians; in brackets the 99th percentile. {origin}\n")
    (out / "table.txt").write_text(table)
    print(table, end="")
    plot_fanout(results, out / "fanout.svg")
    if root:
        shutil.copy(out / "fanout.svg", root / "docs/bench.svg")
        manual = root / "docs/performance.md"
        between = r"(<!-- written by scripts/bench --docs -->\n).*?(<!-- end -->)"
        text = markdown_table(targets, target_rows(results)) + f"\n{origin}.\n"
        manual.write_text(re.sub(between, lambda m: m[1] + text + m[2], manual.read_text(),
                                 flags=re.S))
