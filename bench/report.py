"""Tables and plots of what scripts/bench has measured."""

import os
import pathlib
import re
import shutil
import statistics
import subprocess
import time

# The daemon's ratio to the floor: what, which measure, "at most" or "at least".
TARGETS = [
    *[(f"fan-out to the last of {n} hosts, µs", f"fanout/{n}/last_us", "<=", 1.0)
      for n in (16, 128, 512)],
    *[(f"CPU per delivery, {n} hosts, µs", f"fanout/{n}/cpu_us", "<=", 0.95)
      for n in (16, 128, 512)],
    ("start_mirror per second, 1 caller", "unary/start_mirror/1/per_second", ">=", 1.07),
    ("start_mirror per second, 8 callers", "unary/start_mirror/8/per_second", ">=", 1.10),
    ("whole handshakes per second, 8 at once", "handshakes/8/per_second", ">=", 0.95),
    ("from start_mirror to the caller's answer, µs", "wake/us", "<=", 1.08),
    ("memory (RSS) at rest, KiB", "hold/0/rss_kib", "<=", 0.8),
    ("memory with 900 hosts, KiB", "hold/900/rss_kib", "<=", 0.92),
    ("memory after 2,400 reconnects, KiB", "reconnects/2400/rss_kib", "<=", 0.6),
    ("start-up, ms", "startup_ms", "<=", 0.8),
    ("LUN lookups per second, 256 LUNs", "lookup/256/per_second", ">=", 2.5),
    ("LUN lookups per second, 1024 LUNs", "lookup/1024/per_second", ">=", 2.5),
]
IDLE = ("CPU at rest with 900 hosts, %", "hold/900/idle_cpu_percent", 0.1)
SERVERS = ["daemon", "floor", "floor_only_log", "floor_bare", "mosquitto", "nats"]


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return {"cpu": cpu.group(1) if cpu else "unknown", "cores": os.cpu_count(),
            "kernel": os.uname().release,
            "date": time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())}


def median_ratio(results, measure):
    """Round by round: what disturbed one of the two disturbed its neighbour too."""
    of = results.get(measure, {})
    pairs = [a / b for a, b in zip(of.get("daemon", []), of.get("floor", [])) if b]
    return statistics.median(pairs) if pairs else None


def figure(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def cell(results, measure, server):
    rounds = results.get(measure, {}).get(server)
    if not rounds:
        return ""
    text = figure(statistics.median(rounds))
    p99 = results.get(re.sub(r"(p50_)?us$", "p99_us", measure), {}).get(server)
    return f"{text} ({figure(p99[0])})" if p99 and measure.endswith("us") else text


def target_rows(results):
    rows = []
    for what, measure, way, limit in TARGETS:
        ratio = median_ratio(results, measure)
        if ratio is None:
            continue
        met = ratio <= limit if way == "<=" else ratio >= limit
        rows.append([what, cell(results, measure, "daemon"), cell(results, measure, "floor"),
                     f"{ratio:.2f}", f"{'≤' if way == '<=' else '≥'} {limit}",
                     "yes" if met else "NO"])
    what, measure, limit = IDLE
    if measure in results:
        used = statistics.median(results[measure]["daemon"])
        rows.append([what, cell(results, measure, "daemon"), cell(results, measure, "floor"), "",
                     "nil", "yes" if used < limit else "NO"])
    return rows


def all_rows(results):
    shown = [m for m in results if "p99" not in m and not re.match("unary/.*/cpu_us", m)]
    rows = []
    for measure in shown:
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


def plot(path, settings, series):
    """Each series is a title and its points, x and y."""
    if not any(points for _, points in series):
        return
    series = [(title, points) for title, points in series if points]
    data = "".join("".join(f"{x} {y}\n" for x, y in points) + "e\n" for _, points in series)
    curves = ", ".join(f"'-' with linespoints lw 2 pt 7 ps 0.5 title '{title}'"
                       for title, _ in series)
    subprocess.run(["gnuplot"], input=(
        f"set terminal svg size 760,420 dynamic font 'sans-serif,13' background 'white'\n"
        f"set output '{path}'\nset grid lc rgb '#dddddd'\nset key left top\nset border 3\n"
        f"set tics nomirror\n{settings}\nplot {curves}\n{data}"), text=True, check=True)


def points(results, pattern, server, scale):
    found = []
    for measure, of in results.items():
        match = re.fullmatch(pattern, measure)
        if match and server in of:
            found.append((int(match.group(1)), statistics.median(of[server]) * scale))
    return sorted(found)


def write_plots(results, out):
    log = "set logscale xy\nset xrange [0.9:1100]\nset xlabel 'hosts'\n"
    titles = [("daemon", "daemon"), ("floor", "floor: a bare gRPC server, with the same logging"),
              ("floor_bare", "floor that logs nothing"), ("mosquitto", "mosquitto (MQTT)"),
              ("nats", "NATS")]
    # The numbers of hosts at which all of them were measured.
    plot(out / "fanout.svg", log + "set ylabel 'ms from the announcement to the last host'",
         [(title, points(results, r"fanout/(10*|[59]00)/last_us", name, 1e-3))
          for name, title in titles])
    plot(out / "cpu.svg", log + "set ylabel 'server CPU time for each delivery, µs'",
         [(title, points(results, r"fanout/(10*|[59]00)/cpu_us", name, 1))
          for name, title in titles])
    plot(out / "lookup.svg", "set logscale x 2\nset xlabel 'LUNs'\nset ylabel 'lookups per second'",
         [(name, points(results, r"lookup/(\d+)/per_second", name, 1))
          for name in ("daemon", "floor")])


def write(document, out, readme_root):
    results, where = document["results"], document["machine"]
    origin = (f"{where['date']}, {where['cores']} cores of {where['cpu']}, Linux {where['kernel']}, "
              f"{document['seconds']} s")
    targets = ["Target", "Daemon", "Floor", "Ratio", "Wanted", "Met"]
    table = (text_table(targets, target_rows(results)) + "\n" +
             text_table(["All measures", "Ratio", *SERVERS], all_rows(results)) +
             f"\nMedians; in brackets the 99th percentile. {origin}\n")
    (out / "table.txt").write_text(table)
    print(table, end="")
    write_plots(results, out)
    if readme_root:
        shutil.copy(out / "fanout.svg", readme_root / "docs/bench.svg")
        readme = readme_root / "README.md"
        between = r"(<!-- written by scripts/bench --readme -->\n).*?(<!-- end -->)"
        text = markdown_table(targets, target_rows(results)) + f"\n{origin}.\n"
        readme.write_text(re.sub(between, lambda m: m[1] + text + m[2], readme.read_text(),
                                 flags=re.S))
