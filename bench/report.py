#!/usr/bin/env python3
"""Tables from what the benchmark programs and callgrind have written.

  report.py times FILE...              one table from the JSON files of benchmark runs
  report.py counts FILE...             one table from callgrind's dumps
  report.py check-counts KEPT FILE...  the same, compared with the figures kept; exits 1 when one has grown
  report.py machine                    what was measured on, one line

A benchmark is called <row>/<contestant> or <row>/<contestant>/<input>. "plugin" is ours, "limit" is what the
dependency itself costs; of several limits the best one counts.
"""

import json
import re
import statistics
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path

# ---- What is promised ----


@dataclass(frozen=True)
class Row:
    title: str
    unit: str  # of one iteration, or of the counter
    limit: float | None  # most that the plug-in may take, in limits
    extra: float = 0.0  # added to that, in the row's unit
    extra_text: str = ""
    peers: dict = field(default_factory=dict)  # most that the plug-in may take, in peers
    metrics: tuple = ("",)  # "" is the program's own time; else "cpu", "wall", or the name of a counter
    growth: float | None = None  # most that an input may take, in the cheapest input of the same kind before it

    def target(self):
        parts = [f"≤ {self.growth:g} × smaller rooms"] if self.growth else []
        if self.limit is not None:
            parts.append(f"≤ {self.limit:g} × limit{self.extra_text}")
        parts += [f"≤ {share:g} × {peer}" for peer, share in self.peers.items()]
        return ", ".join(parts)


ROWS = {
    "container": Row("container, per packet", "ns", 1.05, peers={"libavformat": 0.30}),
    "audio_frame": Row("frame with audio", "ns", 1.08),
    "silent_frame": Row("frame without audio", "ns", 1.3),
    "reply": Row("reply read", "ns", 1.10, peers={"simdjson": 1.0, "rapidjson": 0.65}),
    "exchange_plain": Row("exchange, plain", "ns", 1.05, metrics=("cpu", "wall")),
    "exchange_tls": Row("exchange, TLS", "ns", 1.05, metrics=("cpu", "wall")),
    "hand_over": Row("hand-over to the worker, p50", "us", 1.1, metrics=("p50_us",)),
    "pool": Row("packet taken and released", "ns", 1.2),
    "update_cold": Row("update of 1,000, cold", "ns", 3.0),
    "update_warm": Row("update of 1,000, warm", "ns", 10.0),
    "creation": Row("creation of 1,000", "ns", 1.3),
    "memory": Row("memory per recognizer", "bytes", 1.01, 25_000, " + 25 KB", metrics=("bytes",)),
    "pipeline": Row("pipeline, CPU per second of audio", "s", 1.10, peers={"libavformat": 0.25},
                    metrics=("cpu_per_second_of_audio",)),
    "last_words": Row("last words, p50", "ms", 1.0, 1.0, " + 1 ms", metrics=("p50_ms",)),
    "growth": Row("growth, per member", "ns", None, metrics=("ns_member",), growth=1.1),
}

GATED = ("container/plugin/speech", "audio_frame/plugin/speech", "reply/plugin/400_success")
GATE = 1.05  # of the figures kept

# ---- Times ----

SUFFIX = re.compile(r"/(manual_time|real_time|process_time|(iterations|repeats|min_time|threads):[\d.]+)$")
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def base_name(name):
    while SUFFIX.search(name):
        name = SUFFIX.sub("", name)
    return name


def value_of(entry, metric):
    """The figure of one slice: nanoseconds per unit, or a counter."""
    if metric in ("cpu", "wall"):
        return entry["cpu_time" if metric == "cpu" else "real_time"] * NANOSECONDS[entry["time_unit"]]
    if metric:
        return entry[metric]
    if "items_per_second" in entry:
        return 1e9 / entry["items_per_second"]
    wall = entry["name"].endswith(("/manual_time", "/real_time")) or "/manual_time" in entry["name"]
    return entry["real_time" if wall else "cpu_time"] * NANOSECONDS[entry["time_unit"]]


def read_times(files):
    """{(row, input, metric): {contestant: {slice: figure}}}, in the order of ROWS."""
    found = {}
    for file in files:
        for entry in json.loads(Path(file).read_text())["benchmarks"]:
            if entry.get("run_type") == "aggregate":
                continue
            if entry.get("error_occurred"):
                print(f"{entry['name']}: {entry.get('error_message', 'failed')}", file=sys.stderr)
                continue
            row, contestant, *rest = base_name(entry["name"]).split("/", 2)
            if row not in ROWS:
                sys.exit(f"{file}: no such row: {row}")
            for metric in ROWS[row].metrics:
                slices = found.setdefault((row, "".join(rest), metric), {}).setdefault(contestant, {})
                slices[entry.get("repetition_index", 0)] = value_of(entry, metric)
    return dict(sorted(found.items(), key=lambda item: place(*item[0][:2])))


def place(row, variant):
    """Rows in their order, inputs by name, the numbers in them by size."""
    return list(ROWS).index(row), [(part.isdigit(), int(part) if part.isdigit() else 0, part)
                                   for part in re.split(r"(\d+)", variant)]


def median(slices):
    return statistics.median(slices.values())


def ratios(ours, theirs):
    """Quartiles of the ratios of slices with the same index."""
    pairs = [ours[i] / theirs[i] for i in ours if i in theirs and theirs[i] > 0]
    if len(pairs) < 2:
        return (pairs * 3) if pairs else None
    return statistics.quantiles(pairs, n=4, method="inclusive")


def limit_of(contestants):
    limits = [name for name in contestants if name.startswith("limit")]
    return min(limits, key=lambda name: median(contestants[name])) if limits else None


def pretty(value, unit):
    if unit == "bytes":
        return f"{value:,.0f} B"
    nanoseconds = value * NANOSECONDS[unit]
    for name, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3), ("ns", 1.0)):
        if nanoseconds >= size or name == "ns":
            return f"{nanoseconds / size:.3g} {name}"
    return ""


def verdict(row, contestants, limit, to_limit):
    if row.limit is None or limit is None or to_limit is None:
        return "–"
    ours = median(contestants["plugin"])
    met = to_limit[1] <= row.limit
    if row.extra:
        met = ours <= row.limit * median(contestants[limit]) + row.extra
    for peer, share in row.peers.items():
        if peer in contestants:
            to_peer = ratios(contestants["plugin"], contestants[peer])
            met = met and to_peer is not None and to_peer[1] <= share
    return "met" if met else "MISSED"


def growth_verdict(most, ours, cheapest):
    """Inputs come by size. Where a room's data no longer fits the cache a member costs more: said, not judged."""
    if not cheapest:
        return "smallest"
    ratio = ours / min(cheapest)
    return "flat" if ratio <= most else f"{ratio:.2f} × cheapest smaller"


def times_table(found):
    lines = [("row", "input", "plug-in", "to limit", "quartiles", "target", "verdict", "to others")]
    smaller = {}  # medians by row and kind of input, in rows of growth
    for (name, variant, metric), contestants in found.items():
        row = ROWS[name]
        if "plugin" not in contestants:
            continue
        ours = contestants["plugin"]
        limit = limit_of(contestants)
        to_limit = ratios(ours, contestants[limit]) if limit else None
        others = []
        for peer, slices in contestants.items():
            to_peer = ratios(ours, slices) if peer not in ("plugin", limit) else None
            if to_peer:
                others.append(f"{peer} {to_peer[1]:.2f}")
        judged = verdict(row, contestants, limit, to_limit)
        if row.growth:
            cheapest = smaller.setdefault((name, variant.rpartition("_")[0]), [])
            judged = growth_verdict(row.growth, median(ours), cheapest)
            cheapest.append(median(ours))
        label = " ".join(part for part in (variant, metric if metric in ("cpu", "wall") else "") if part)
        lines.append((row.title, label, pretty(median(ours), row.unit),
                      f"{to_limit[1]:.2f}" if to_limit else "",
                      f"{to_limit[0]:.2f}–{to_limit[2]:.2f}" if to_limit else "",
                      row.target(), judged, ", ".join(others)))
    return lines


# ---- Instruction counts ----


def read_counts(files):
    """{case: instructions per unit}; a case's trigger is "<name> <units>"."""
    counts = {}
    for file in files:
        text = Path(file).read_text()
        trigger = re.search(r"^desc: Trigger: Client Request: (\S+) (\d+)$", text, re.M)
        total = re.search(r"^(?:summary|totals): (\d+)", text, re.M)
        if trigger and total:
            counts[trigger[1]] = int(total[1]) / int(trigger[2])
    if not counts:
        sys.exit("no counts in these files")
    return counts


def counts_table(counts):
    lines = [("row", "input", "plug-in", "limit", "ratio", "others")]
    rows = {}
    for name, count in counts.items():
        row, contestant, *rest = name.split("/", 2)
        rows.setdefault((row, "".join(rest)), {})[contestant] = count
    for (row, variant), contestants in sorted(rows.items(), key=lambda item: place(*item[0])):
        limits = [name for name in contestants if name.startswith("limit")]
        limit = min(limits, key=contestants.get) if limits else None
        others = [f"{name} {count:,.0f}" for name, count in contestants.items() if name not in ("plugin", limit)]
        ours = contestants["plugin"]
        lines.append((ROWS[row].title, variant, f"{ours:,.1f}", f"{contestants[limit]:,.1f}" if limit else "",
                      f"{ours / contestants[limit]:.2f}" if limit else "", ", ".join(others)))
    return lines


def check_counts(kept_file, counts):
    kept = json.loads(Path(kept_file).read_text())
    grown = False
    for name in GATED:
        now, before = counts[name], kept[name]
        bad = now > GATE * before
        grown = grown or bad
        print(f"{name:28} {now:10,.1f} instructions, kept {before:10,.1f}, {now / before - 1:+.1%}"
              f"{'   TOO MANY' if bad else ''}")
    return 1 if grown else 0


# ---- Output ----


def print_table(lines):
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    for number, line in enumerate(lines):
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
        if number == 0:
            print("  ".join("-" * width for width in widths))


def machine():
    def first(pattern, text, default):
        match = re.search(pattern, text, re.M)
        return match[1].strip() if match else default

    def version(package):
        command = ["dpkg-query", "-W", "-f=${Version}", package]
        asked = subprocess.run(command, capture_output=True, text=True, check=False)
        return re.sub(r"^\d+:|[-+~].*$", "", asked.stdout) or "?"

    cpu = first(r"^model name\s*:\s*(.*)$", Path("/proc/cpuinfo").read_text(), "unknown processor")
    system = first(r'^PRETTY_NAME="(.*)"$', Path("/etc/os-release").read_text(), "Linux")
    packages = {"GCC": "g++", "glibc": "libc6", "libogg": "libogg0", "libcurl": "libcurl4",
                "libavformat": "libavformat59", "GStreamer": "libgstreamer1.0-0", "simdjson": "libsimdjson14",
                "RapidJSON": "rapidjson-dev",
                "nlohmann-json": "nlohmann-json3-dev", "Google Benchmark": "libbenchmark1debian"}
    return f"{cpu}; {system}; " + ", ".join(f"{name} {version(package)}" for name, package in packages.items())


def main(arguments):
    match arguments:
        case ["times", *files] if files:
            print_table(times_table(read_times(files)))
        case ["counts", *files] if files:
            print_table(counts_table(read_counts(files)))
        case ["check-counts", kept, *files] if files:
            return check_counts(kept, read_counts(files))
        case ["machine"]:
            print(machine())
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
