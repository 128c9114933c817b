#!/usr/bin/env python3
"""Makes a table and a plot of the measurements: table.py FOLDER PAGE PLOT

FOLDER has the JSON of every program in every round, and about.txt, which describes the machine. Prints the table and
writes it into PAGE between its two marks. A benchmark is called "WHAT/SUBJECT/ARGUMENT:VALUE...". The ratios divide the
measurement of the subject "library" by that of each other subject in the same round.
"""
import collections
import json
import math
import pathlib
import re
import statistics
import sys

UNITS = (("s", 1), ("ms", 1e-3), ("µs", 1e-6), ("ns", 1e-9))
SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}
COUNTERS = {"CPU": ", CPU", "gap": ", longest gap at an output"}

Row = collections.namedtuple("Row", "what library subject other ratios")  # the last four: texts and numbers an argument


def read(folder):
    """Returns {(what, arguments but the last): {subject: {last argument: [seconds by rounds]}}}, and the fits by rounds."""
    measured = collections.defaultdict(lambda: collections.defaultdict(lambda: collections.defaultdict(list)))
    fits = []
    for file in sorted(folder.glob("*.json")):
        for run in json.loads(file.read_text())["benchmarks"]:
            what, subject, *parts = run["run_name"].split("/")
            if run.get("aggregate_name") == "BigO":
                fits.append((run["big_o"], run["real_coefficient"] * SECONDS[run["time_unit"]]))
            if run["run_type"] == "aggregate":
                continue
            arguments = [part for part in parts if re.match("(?!iterations|min_time).*:", part)]
            time = run["real_time" if {"manual_time", "real_time"} & set(parts) else "cpu_time"]
            quantities = {"": time * SECONDS[run["time_unit"]]}
            quantities.update({text: run[counter] for counter, text in COUNTERS.items() if counter in run})
            for quantity, seconds in quantities.items():
                what_of = ", ".join([what + quantity] + [a.replace(":", " ") for a in arguments[:-1]])
                measured[what_of][subject][(arguments or [""])[-1]].append(seconds)
    return measured, fits


def duration(seconds):
    unit, scale = next((unit for unit in UNITS if seconds >= unit[1]), UNITS[-1])
    return f"{seconds / scale:.{max(0, 2 - int(math.log10(max(seconds / scale, 1))))}f} {unit}"


def durations(rounds):
    return " / ".join(duration(statistics.median(seconds)) for seconds in rounds.values())


def make_rows(measured, fits):
    rows = []
    for what, subjects in measured.items():
        library = subjects.pop("library")
        arguments = [argument.split(":") for argument in library]
        if arguments[0][0]:
            what += f", {arguments[0][0]} " + " / ".join(value for _, value in arguments)
        for subject, other in subjects.items():
            ratios = [[a / b for a, b in zip(library[argument], other[argument])] for argument in library]
            rows.append(Row(what, durations(library), subject, durations(other), ratios))
        if not subjects:
            order = statistics.mode(order for order, _ in fits)
            fit = statistics.median(factor for fitted, factor in fits if fitted == order)
            rows.append(Row(what, durations(library), "", f"about {duration(fit)} · {order}" if "gap" not in what else "", []))
    return rows


def ratio(rounds):
    middle, low, high = (f"{x:.2f}" if x < 10 else f"{x:.0f}" for x in (statistics.median(rounds), min(rounds), max(rounds)))
    return f"{middle} ({low}–{high})"


def make_table(rows):
    lines = ["| what | the library | beside | takes | ratio (lowest–highest round) |", "|---|---|---|---|---|"]
    for row in rows:
        lines.append(f"| {row.what} | {row.library} | {row.subject} | {row.other} | {' / '.join(map(ratio, row.ratios))} |")
    return "\n".join(lines)


def make_meaning(measured):
    """Returns the sentences about the figures that matter to a user."""

    def library(what, argument):
        return statistics.median(measured[what]["library"][argument])

    frame = 1 / 60
    feeds = [int(frame / library("a frame at rest, CPU, filters 4", f"outputs:{n}")) for n in (1, 4, 16)]
    gaps = [library("a filter change at 60 frames a second, longest gap at an output", f"chain:{n}") for n in (1, 8, 64, 256)]
    late = [f"{max(0, gap / frame - 1):.1f}" for gap in gaps]
    return (
        f"One core feeds about {feeds[0]} pipelines of 60 frames a second, 4 filters and 1 output, {feeds[1]} with 4 outputs\n"
        f"or {feeds[2]} with 16, before the elements do any work of their own. A filter change in a chain of 1, 8, 64 or 256\n"
        f"delays the frame that it blocks by {', '.join(late[:-1])} or {late[-1]} frames."
    )


def make_plot(rows):
    """Draws a line of dots for each row, at the medians of the ratios, and bars from the lowest to the highest."""
    rows = [row for row in rows if row.ratios]
    low, high, left, width, step = 0.25, 8, 700, 400, 16
    height = step * len(rows) + 40

    def x(value):
        return left + width * math.log(min(max(value, low), high) / low) / math.log(high / low)

    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 20}" height="{height}" font-family="sans-serif" '
        'font-size="11">',
        '<rect width="100%" height="100%" fill="white"/>',
        f'<text x="{left}" y="12">the library, times what stands beside it (beyond the edge: as on the edge)</text>',
    ]
    for tick in (0.25, 0.5, 1, 2, 4, 8):
        colour = "black" if tick == 1 else "#ccc"
        parts.append(f'<path d="M{x(tick):.1f} 30V{height - 6}" stroke="{colour}"/>')
        parts.append(f'<text x="{x(tick):.1f}" y="26" text-anchor="middle">{tick}</text>')
    for i, row in enumerate(rows):
        y = 42 + step * i
        parts.append(f'<text x="{left - 8}" y="{y + 4}" text-anchor="end">{row.what} | {row.subject}</text>')
        for rounds in row.ratios:
            parts.append(f'<path d="M{x(min(rounds)):.1f} {y}H{x(max(rounds)):.1f}" stroke="#69c" stroke-width="3"/>')
        for rounds in row.ratios:
            parts.append(f'<circle cx="{x(statistics.median(rounds)):.1f}" cy="{y}" r="3" fill="#036"/>')
    return "\n".join(parts + ["</svg>", ""])


def put_into(page, text):
    begin, end = "<!-- measured: written by scripts/benchmark -->\n", "<!-- end of what is measured -->"
    before, _, rest = page.read_text().partition(begin)
    page.write_text(before + begin + text + end + rest.partition(end)[2])


def main():
    folder, page, plot = map(pathlib.Path, sys.argv[1:])
    measured, fits = read(folder)
    meaning = make_meaning(measured)
    rows = make_rows(measured, fits)
    table = make_table(rows)
    print(f"{table}\n\n{meaning}")
    put_into(page, f"{(folder / 'about.txt').read_text()}\n{meaning}\n\n{table}\n\n")
    plot.write_text(make_plot(rows))


main()
