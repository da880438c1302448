#!/usr/bin/env python3
"""Draws the results of the last benchmark run.

  plot.py FOLDER FILE...   FOLDER holds the JSON files and machine.txt; each FILE is written in the format of its name
"""

import re
import sys
import textwrap
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
from matplotlib.ticker import NullFormatter, NullLocator

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).parent))
import report

OURS, LIMIT, PEER, INK, FAINT = "#1f6feb", "#57606a", "#c6ced6", "#24292f", "#d8dee4"
COLUMNS = 4
LOG_FROM = 12  # longest bar over shortest

# One panel each: row, input, metric, title.
PANELS = (
    ("container", "speech", "", "Ogg container, per packet of speech"),
    ("audio_frame", "speech", "", "Frame with audio"),
    ("silent_frame", "", "", "Frame without audio"),
    ("reply", "100_success", "", "Reply of 100 bytes, read"),
    ("reply", "400_success", "", "Reply of 400 bytes, read"),
    ("reply", "1200_escapes", "", "1,200 bytes, full of escapes"),
    ("pool", "locked", "", "Packet taken, released under a lock"),
    ("exchange_plain", "", "cpu", "Exchange over HTTP, CPU"),
    ("exchange_tls", "", "cpu", "Exchange over HTTPS, CPU"),
    ("hand_over", "request", "p50_us", "Hand-over to the worker, median"),
    ("last_words", "40ms", "p50_ms", "Last words to text, 40 ms updates"),
    ("update_warm", "", "", "Update of 1,000 idle, warm"),
    ("update_cold", "", "", "Update of 1,000 idle, cold"),
    ("creation", "fresh", "", "Session of 250, created"),
    ("memory", "", "bytes", "Memory per recognizer"),
    ("pipeline", "", "cpu_per_second_of_audio", "CPU per second of audio"),
)
NAMES = {"plugin": "plug-in", "limit_bytewise": "limit", "gstreamer": "GStreamer", "rapidjson": "RapidJSON",
         "nlohmann": "nlohmann-json", "two_calls": "two calls", "counter_two_calls": "counter, two calls",
         "called": "limit, called", "handshake": "with handshake", "condition_variable": "condition variable",
         "sockets": "bare sockets", "curl_bundle": "system bundle", "curl_contract": "with our options",
         "curl_threads": "libcurl threads"}


def color_of(contestant):
    return OURS if contestant == "plugin" else LIMIT if contestant.startswith("limit") else PEER


def bare(axes, title):
    axes.set_title(title, fontsize=9.5, fontweight="bold", loc="left", color=INK, pad=6)
    for side in ("top", "right", "left", "bottom"):
        axes.spines[side].set_visible(False)
    axes.tick_params(length=0, labelsize=8.5, colors=INK)


def bars(axes, title, row, contestants):
    limit = report.limit_of(contestants)
    shown = {name: report.median(slices) for name, slices in contestants.items()
             if name == limit or not name.startswith("limit")}
    order = sorted(shown, key=lambda name: (name != "plugin", name != limit, shown[name]))
    values = [shown[name] for name in order]
    low, high = min(values), max(values)
    logarithmic = high / low > LOG_FROM
    places = range(len(order))[::-1]
    axes.barh(places, values, color=[color_of(name) for name in order], height=0.68)
    bare(axes, title)
    if logarithmic:
        axes.set_xscale("log")
        axes.set_xlim(low / 2.5, high * (high / low) ** 0.42)
        axes.text(1, -0.01, "log scale", transform=axes.transAxes, fontsize=7.5, color=LIMIT, ha="right", va="top")
    else:
        axes.set_xlim(0, high * 1.32)
    axes.xaxis.set_major_locator(NullLocator())
    axes.xaxis.set_minor_locator(NullLocator())
    axes.xaxis.set_major_formatter(NullFormatter())
    axes.set_yticks(list(places), [NAMES.get(name, name) for name in order])
    for label, name in zip(axes.get_yticklabels(), order):
        label.set_fontweight("bold" if name == "plugin" else "normal")
    axes.set_ylim(-0.7 - max(0, 4 - len(order)), len(order) - 0.3)
    for place, name, value in zip(places, order, values):
        axes.annotate(report.pretty(value, row.unit), (value, place), xytext=(4, 0), textcoords="offset points",
                      va="center", fontsize=8.5, color=INK, fontweight="bold" if name == "plugin" else "normal")


def growth(axes, found):
    """Cost per member over the number of members, one line for each kind of work."""
    lines = {}
    for (row, variant, _), contestants in found.items():
        match = re.fullmatch(r"(\w+?)_(\d+)", variant)
        if row == "growth" and match and "plugin" in contestants:
            lines.setdefault(match[1], []).append((int(match[2]), report.median(contestants["plugin"])))
    bare(axes, "Growth: cost per member over the number of members")
    axes.set_xscale("log", base=2)
    axes.set_yscale("log")
    axes.grid(color=FAINT, linewidth=0.7)
    names = {"frame": "a frame", "update": "its share of an update"}
    for style, (kind, points) in zip(("-", "--", ":"), sorted(lines.items())):
        points.sort()
        axes.plot([x for x, _ in points], [y for _, y in points], style, color=OURS, linewidth=1.8, marker="o",
                  markersize=3.5)
        axes.annotate(names.get(kind, kind), points[-1], xytext=(7, 4 if kind == "frame" else -5),
                      textcoords="offset points", va="center", fontsize=8.5, color=INK)
    members = sorted({x for points in lines.values() for x, _ in points})
    axes.set_xticks(members[::2], [f"{x:,}" for x in members[::2]])
    axes.xaxis.set_minor_locator(NullLocator())
    axes.yaxis.set_major_formatter(lambda value, _: f"{value:g}")
    axes.yaxis.set_minor_locator(NullLocator())
    axes.set_xlim(members[0] / 1.3, members[-1] * 6)
    axes.set_ylabel("ns", fontsize=8.5, color=INK, rotation=0, labelpad=8)


def draw(folder, files):
    found, _ = report.read_times(sorted(folder.glob("*.json")))
    panels = [(title, report.ROWS[row], found[row, variant, metric])
              for row, variant, metric, title in PANELS if (row, variant, metric) in found]
    if not panels:
        sys.exit(f"{folder}: nothing to draw; scripts/bench comes first")
    grows = any(row == "growth" for row, _, _ in found)
    rows = -(-len(panels) // COLUMNS) + grows
    plt.rcParams.update({"font.family": "DejaVu Sans", "svg.hashsalt": "bench", "svg.fonttype": "path"})
    figure = plt.figure(figsize=(13.5, 1.85 * rows + 1.5), facecolor="white")
    grid = figure.add_gridspec(rows, COLUMNS, left=0.075, right=0.985, top=1 - 0.95 / (1.85 * rows + 1.5),
                               bottom=0.75 / (1.85 * rows + 1.5), wspace=0.62, hspace=0.38)
    for number, panel in enumerate(panels):
        bars(figure.add_subplot(grid[number // COLUMNS, number % COLUMNS]), *panel)
    if grows:
        growth(figure.add_subplot(grid[rows - 1, :]), found)
    figure.text(0.012, 0.985, "What the plug-in costs", fontsize=15, fontweight="bold", color=INK, va="top")
    figure.text(0.012, 1 - 0.5 / (1.85 * rows + 1.5),
                "Less is better. Limit: what the libraries and services that the work stands on cost alone, in the "
                "same run. Medians.", fontsize=9.5, color=LIMIT, va="top")
    machine = folder / "machine.txt"
    caption = machine.read_text().strip() if machine.exists() else ""
    figure.text(0.012, 0.012, textwrap.fill(caption, 190), fontsize=8, color=LIMIT, va="bottom")
    for file in files:
        figure.savefig(file, metadata={"Date": None} if file.endswith(".svg") else None, dpi=110)


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    draw(Path(sys.argv[1]), sys.argv[2:])
