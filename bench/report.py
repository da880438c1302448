#!/usr/bin/env python3
"""Tables from what the benchmark programs and callgrind have written.

  report.py times FILE...              one table from the JSON files of benchmark runs; exits 1 when a benchmark has
                                       failed, or the plug-in, its limit or a peer with a target is missing in a row
  report.py counts FILE...             one table from callgrind's dumps
  report.py check-counts KEPT FILE...  the same, compared with the figures kept; exits 1 when one has grown
  report.py machine                    what was measured on, one line

--markdown as the first argument prints tables for a page. A benchmark is called <row>/<contestant> or
<row>/<contestant>/<input>. "plugin" is ours, "limit" is what the dependency itself costs; of several limits the best
one counts.
"""

import json
import re
import statistics
import subprocess
import sys
import textwrap
from dataclasses import dataclass, field
from pathlib import Path

# ---- What is promised ----


@dataclass(frozen=True)
class Row:
    title: str
    unit: str  # of one iteration, or of the counter
    limit: float | None = None  # most that the plug-in may take, in limits
    extra: float = 0.0  # added to that, in the row's unit
    extra_text: str = ""
    peers: dict = field(default_factory=dict)  # most that the plug-in may take, in peers
    metrics: tuple = ("",)  # "" is the program's own time; else "cpu", "wall", or the name of a counter
    most: float | None = None  # that the plug-in may take, in the row's unit
    growth: float | None = None  # most that an input may take, in the cheapest input of the same kind before it
    measured_as: str = ""  # the benchmarks' row, where it is not the key in ROWS
    timed: bool = True  # by a benchmark; otherwise only counted

    def target(self):
        if self.growth:
            return f"≤ {self.growth:g} × smaller"
        if self.most is not None:
            return f"≤ {pretty(self.most, self.unit)}"
        return "" if self.limit is None else f"≤ {self.limit:g}{self.extra_text}"


ROWS = {
    "container": Row("container, per packet", "ns", 1.05, peers={"libavformat": 0.30}),
    "audio_frame": Row("frame with audio", "ns", 1.08),
    "silent_frame": Row("frame without audio", "ns", 1.3),
    "reply": Row("reply read", "ns", 1.10, peers={"simdjson": 1.0, "rapidjson": 0.65}),
    "exchange_plain": Row("exchange, plain", "ns", 1.05, metrics=("cpu", "wall")),
    "exchange_tls": Row("exchange, TLS", "ns", 1.05, peers={"curl_bundle": 0.06}, metrics=("cpu", "wall")),
    "hand_over": Row("hand-over to the worker, p50", "us", 1.1, metrics=("p50_us",)),
    "pool": Row("packet taken and released", "ns", 1.2),
    "update_cold": Row("update of 1,000, cold", "ns", 3.0),
    "update_warm": Row("update of 1,000, warm", "ns", 10.0),
    "update_64": Row("update of 64, per member", "ns", timed=False),
    "creation": Row("creation of 250", "ns", 1.3),
    "memory": Row("memory per recognizer", "bytes", 1.01, 25_000, " + 25 KB", metrics=("bytes",)),
    "memory_growth": Row("memory, last 7,500 utterances", "bytes", metrics=("growth",), most=4096,
                         measured_as="memory"),
    "pipeline": Row("pipeline, CPU per s of audio", "s", 1.10, peers={"libavformat": 0.25},
                    metrics=("cpu_per_second_of_audio",)),
    "last_words": Row("last words, p50", "ms", 1.0, 1.0, " + 1 ms", metrics=("p50_ms",)),
    "growth": Row("growth, per member", "ns", metrics=("ns_member",), growth=1.1),
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
    """The figure of one slice: nanoseconds per unit, or a counter; None when it has no such counter."""
    if metric in ("cpu", "wall"):
        return entry["cpu_time" if metric == "cpu" else "real_time"] * NANOSECONDS[entry["time_unit"]]
    if metric:
        return entry.get(metric)
    if "items_per_second" in entry:
        return 1e9 / entry["items_per_second"]
    wall = entry["name"].endswith(("/manual_time", "/real_time")) or "/manual_time" in entry["name"]
    return entry["real_time" if wall else "cpu_time"] * NANOSECONDS[entry["time_unit"]]


def read_times(files):
    """{(row, input, metric): {contestant: {slice: figure}}} in the order of ROWS, and what has gone wrong."""
    found, errors = {}, []
    for file, entry in ((file, entry) for file in files for entry in json.loads(Path(file).read_text())["benchmarks"]):
        if entry.get("run_type") == "aggregate":
            continue
        if entry.get("error_occurred"):
            errors.append(f"{entry['name']}: {entry.get('error_message', 'failed')}")
            continue
        measured, contestant, *rest = base_name(entry["name"]).split("/", 2)
        rows = [name for name, row in ROWS.items() if (row.measured_as or name) == measured]
        if not rows:
            errors.append(f"{entry['name']}: no such row")
        for name, metric in ((name, metric) for name in rows for metric in ROWS[name].metrics):
            value = value_of(entry, metric)
            if value is not None:
                slices = found.setdefault((name, "".join(rest), metric), {}).setdefault(contestant, {})
                slices[file, entry.get("repetition_index", 0)] = value
    return dict(sorted(found.items(), key=lambda item: place(*item[0][:2]))), [*dict.fromkeys(errors), *missing(found)]


def missing(found):
    """What the table could not judge."""
    measured = {name for name, _, _ in found}
    gone = [f"{name}: not measured" for name, row in ROWS.items() if row.timed and name not in measured]
    for (name, variant, metric), contestants in found.items():
        wanted = ["plugin", *ROWS[name].peers] + (["limit"] if ROWS[name].limit is not None else [])
        gone += [f"{'/'.join(part for part in (name, variant, metric) if part)}: no {contestant}"
                 for contestant in wanted if contestant not in contestants]
    return gone


def place(row, variant):
    """Rows in their order, inputs by name, the numbers in them by size."""
    return list(ROWS).index(row), [(part.isdigit(), int(part) if part.isdigit() else 0, part)
                                   for part in re.split(r"(\d+)", variant)]


def median(slices):
    return statistics.median(slices.values())


def quartiles(figures):
    return statistics.quantiles(figures, n=4, method="inclusive") if len(figures) > 1 else list(figures) * 3


def ratios(ours, theirs, allowed=0.0):
    """Quartiles of the ratios of slices of the same process and number, `allowed` taken from ours first."""
    return quartiles([(ours[i] - allowed) / theirs[i] for i in ours if theirs.get(i, 0) > 0]) or None


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


VERDICTS = ("", "met", "open", "MISSED")  # the later, the worse


def judge(found, most):
    """Open: the target lies between the quartiles."""
    if not found or most is None:
        return ""
    return "met" if found[2] <= most else "MISSED" if found[0] > most else "open"


def growth_verdict(most, ours, cheapest):
    """Inputs come by size. Where a room's data no longer fits the cache a member costs more: how much is said, not
    judged."""
    if not cheapest:
        return "smallest"
    ratio = ours / min(cheapest)
    return "flat" if ratio <= most else f"{ratio:.2f} ×"


def to_others(row, contestants, limit):
    """Ratios to all contestants but the limit, and the worst verdict where they have targets."""
    texts, verdicts = [], [""]
    for peer in sorted(contestants.keys() - {"plugin", limit}):
        to_peer = ratios(contestants["plugin"], contestants[peer])
        if not to_peer:
            continue
        verdicts.append(judge(to_peer, row.peers.get(peer)))
        promise = f"≤ {row.peers[peer]:g} {verdicts[-1].replace('met', '')}".rstrip() if verdicts[-1] else ""
        texts.append(f"{peer} {to_peer[1]:.2f}{promise and f' ({promise})'}")
    return ", ".join(texts), max(verdicts, key=VERDICTS.index)


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
        others, judged = to_others(row, contestants, limit)
        if row.limit is not None and limit:
            judged = max(judged, judge(ratios(ours, contestants[limit], row.extra), row.limit), key=VERDICTS.index)
        if row.most is not None:
            judged = judge(quartiles(ours.values()), row.most)
        if row.growth:
            cheapest = smaller.setdefault((name, variant.rpartition("_")[0]), [])
            judged = growth_verdict(row.growth, median(ours), cheapest)
            cheapest.append(median(ours))
        label = " ".join(part for part in (variant, metric if metric in ("cpu", "wall") else "") if part)
        lines.append((row.title, label, pretty(median(ours), row.unit),
                      f"{to_limit[1]:.2f}" if to_limit else "",
                      f"{to_limit[0]:.2f}–{to_limit[2]:.2f}" if to_limit else "",
                      row.target(), judged or "–", others))
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
        others = [f"{name} {contestants[name]:,.0f}" for name in sorted(contestants.keys() - {"plugin", limit})]
        ours = contestants["plugin"]
        lines.append((ROWS[row].title, variant, f"{ours:,.1f}", f"{contestants[limit]:,.1f}" if limit else "",
                      f"{ours / contestants[limit]:.2f}" if limit else "", ", ".join(others)))
    return lines


def check_counts(kept_file, counts):
    kept = json.loads(Path(kept_file).read_text())
    bad = False
    for name in GATED:
        now, before = counts.get(name), kept.get(name)
        if now is None or before is None:
            print(f"{name:28} {'not counted' if now is None else f'not in {kept_file}'}")
            bad = True
            continue
        grown = now > GATE * before
        bad = bad or grown
        print(f"{name:28} {now:10,.1f} instructions, kept {before:10,.1f}, {now / before - 1:+.1%}"
              f"{'   TOO MANY' if grown else ''}")
    return 1 if bad else 0


# ---- Output ----

SCREEN = 120  # columns


def print_table(lines, markdown):
    """On a screen, the last cells get lines of their own where they do not fit."""
    if markdown:
        for number, line in enumerate(lines):
            print(f"| {' | '.join(line)} |")
            if number == 0:
                print("|---" * len(line) + "|")
        return
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    columns = len(widths) if sum(widths) + 2 * len(widths) <= SCREEN else len(widths) - 1
    for number, line in enumerate(lines):
        print("  ".join(cell.ljust(width) for cell, width in zip(line[:columns], widths)).rstrip())
        for below in line[columns:]:
            indent = " " * (widths[0] + 2)
            text = textwrap.fill(below, SCREEN, initial_indent=indent, subsequent_indent=indent)
            print(text, end="\n" if below else "")
        if number == 0:
            print("  ".join("-" * width for width in widths[:columns]))


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


def run(arguments):
    markdown = arguments[:1] == ["--markdown"]
    match arguments[markdown:]:
        case ["times", *files] if files:
            found, errors = read_times(files)
            print_table(times_table(found), markdown)
            for error in errors:
                print(f"report.py: {error}", file=sys.stderr)
            return 1 if errors else 0
        case ["counts", *files] if files:
            print_table(counts_table(read_counts(files)), markdown)
        case ["check-counts", kept, *files] if files:
            return check_counts(kept, read_counts(files))
        case ["machine"]:
            print(machine())
        case ["--help" | "-h"]:
            print(__doc__)
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    return 0


def main(arguments):
    try:
        return run(arguments)
    except OSError as error:
        print(f"report.py: {error.filename}: {error.strerror}", file=sys.stderr)
    except json.JSONDecodeError as error:
        print(f"report.py: not what a benchmark writes: {error}", file=sys.stderr)
    except KeyError as error:
        print(f"report.py: {error} is missing", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
