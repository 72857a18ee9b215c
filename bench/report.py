#!/usr/bin/python3
"""Makes the table and the plots of a benchmark run.

    report.py RESULTS LIBRARY               prints the table
    report.py RESULTS LIBRARY --docs DOCS   rewrites the results in DOCS/benchmarks.md and the plots in DOCS/benchmarks

RESULTS contains one Google Benchmark file for each group, and a file that describes the machine.
"""
import argparse
import datetime
import json
import pathlib
import re
import statistics
import subprocess
import tempfile

# For each group: its title, the row with which the goal compares, the goal as a ratio to that row, and whether the
# layer must also beat every peer.
FAMILIES = {
    "lock": ("lock + unlock a mutex", "raw", 1.12, False),
    "condition": ("condition ping-pong", "raw", 1.02, False),
    "condition-timed": ("condition ping-pong, timed", "raw", 1.02, False),
    "thread": ("thread start + join", "raw", 1.02, False),
    "child-10M": ("child start + wait, 10 MB touched", "raw", 1.05, True),
    "child-1G": ("child start + wait, 1 GB touched", "raw", 1.05, True),
    "fifo": ("FIFO write + read, 64 B", "raw", 1.03, False),
    "fifo-wait": ("FIFO write + wait + read, 64 B", "raw", 1.03, False),
    "segment": ("segment send + receive, 64 B", "fixed", 1.1, False),
    "segment-roundtrip": ("segment round trip between processes", "raw", 1.0, False),
    "filelock": ("file lock + unlock", "raw", 1.02, False),
    "throw-leaf": ("throw + catch, as itself", "raw", 1.2, True),
    "throw-family": ("throw + catch, as its family", "raw", 1.2, True),
    "throw-root": ("throw + catch, as the root", "raw", 1.2, True),
    "throw-operation": ("failed operation, thrown + caught", "raw", 1.25, True),
    "log-filtered": ("filtered log line", "raw", 1.0, False),
    "log-written": ("written log line, to a file", "raw", 0.75, True),
    "log-null": ("written log line, to /dev/null", "raw", 0.75, True),
    "command-20": ("command output, 20 lines", "raw", 1.0, False),
    "command-200k": ("command output, 200,000 lines", "fixed", 1.1, False),
    "load": ("program start, library loaded", "raw", 1.1, False),
}
OWN_ROWS = ("raw", "fixed", "OQLinux", "by OsResumeThread", "traced to a file")
SYSTEM_ROWS = ("fork", "posix_spawn", "POSIX queue")  # system facilities; every other row is a peer
SIZES = {
    "fifo-by-length": ("FIFO write + read", "message, bytes"),
    "segment-by-length": ("segment send + receive", "message, bytes"),
    "child-by-memory": ("child start + wait", "memory touched by the parent, MB"),
    "command-by-lines": ("command output", "lines"),
    "contention": ("lock + unlock, contended", "threads"),
}
LARGEST_LIBRARY = 100  # KB, stripped
BETWEEN = ("<!-- results: written by scripts/bench -->\n", "<!-- end of results -->\n")


def read(path, clock=False):
    """Returns {row: {size: [nanoseconds for each repetition]}}. The size is None in a row without sizes.

    The time is processor time, including threads and children, or clock time if requested. For a row that sleeps it is
    always clock time."""
    rows = {}
    for run in json.loads(path.read_text())["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        name = run["name"].split("/")
        parts = [p for p in name[1:] if not p.endswith("_time") and not p.startswith("repeats:")]
        size = int(re.sub(r"\D", "", parts[1])) if len(parts) > 1 else None
        assert run["time_unit"] == "ns"
        if "manual_time" in name:
            nanoseconds = run["clock" if clock else "real_time"]
        else:
            nanoseconds = run["real_time" if clock or "real_time" in name else "cpu_time"]
        rows.setdefault(parts[0], {}).setdefault(size, []).append(nanoseconds)
    return rows


def clock_ratio(path):
    """Returns the ratio of the layer to the raw calls in clock time; "" for a group without separate clock times."""
    if not re.search(r"/(process|real|manual)_time\"", path.read_text()):
        return ""
    medians = {row: statistics.median(next(iter(sizes.values()))) for row, sizes in read(path, clock=True).items()}
    return f"{medians['OQLinux'] / medians['raw']:.2f}"


def median_rows(path):
    """Returns {row: (median, half the interquartile range relative to the median)} for a group with a single size."""
    rows = {}
    for row, sizes in read(path).items():
        values = next(iter(sizes.values()))
        middle = statistics.median(values)
        lower, _, upper = statistics.quantiles(values, n=4)
        rows[row] = (middle, (upper - lower) / 2 / middle)
    return rows


def duration(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def stripped_size(library):
    with tempfile.TemporaryDirectory() as directory:
        copy = pathlib.Path(directory) / "library"
        subprocess.run(["strip", "--strip-all", "-o", copy, library.resolve()], check=True)
        return copy.stat().st_size / 1024


def family_table(groups, clocks, library):
    lines = ["| work | raw | OQLinux | ± | ratio to raw | by the clock | to the fixed steps | goal | met "
             "| others, ratio to raw |",
             "|---|--:|--:|--:|--:|--:|--:|---|---|---|"]
    for group, rows in groups.items():
        title, reference, goal, ahead = FAMILIES[group]
        raw, ours = rows["raw"][0], rows["OQLinux"][0]
        peers = {row: time[0] / raw for row, time in sorted(rows.items(), key=lambda item: item[1])
                 if row not in OWN_ROWS}
        fixed = f"{ours / rows['fixed'][0]:.2f}" if "fixed" in rows else ""
        first = min((ratio for row, ratio in peers.items() if row not in SYSTEM_ROWS), default=9)
        met = round(ours / rows[reference][0], 2) <= goal and not (ahead and first < ours / raw)
        wanted = f"≤ {goal:.2f}" + (" of the fixed steps" if reference == "fixed" else "")
        wanted += ", first" if ahead else ""
        others = [f"{row} {ratio:.2f}" for row, ratio in peers.items()]
        others += [f"*{row} {rows[row][0] / raw:.2f}*" for row in OWN_ROWS[3:] if row in rows]
        lines.append(f"| {title} | {duration(raw)} | {duration(ours)} | {100 * rows['OQLinux'][1]:.0f} % | "
                     f"**{ours / raw:.2f}** | {clocks[group]} | {fixed} | {wanted} | {'yes' if met else 'no'} "
                     f"| {', '.join(others)} |")
    size = stripped_size(library)
    lines.append(f"| size of the library, stripped | | {size:.0f} KB | | | | | ≤ {LARGEST_LIBRARY} KB | "
                 f"{'yes' if size <= LARGEST_LIBRARY else 'no'} | |")
    return lines


def size_table(groups):
    lines = []
    for group, rows in groups.items():
        title, axis = SIZES[group]
        sizes = sorted(rows["raw"])
        medians = {row: {s: statistics.median(values[s]) for s in sizes} for row, values in rows.items()}
        lines += ["", f"| {title}: {axis} | " + " | ".join(f"{s:,}" for s in sizes) + " |",
                  "|---|" + "--:|" * len(sizes)]
        for row, values in medians.items():
            lines.append(f"| {row} | " + " | ".join(duration(values[s]) for s in sizes) + " |")
        if group != "contention":  # the winner of a contended lock is random, so a ratio is meaningless
            lines.append("| **OQLinux, ratio to raw** | "
                         + " | ".join(f"{medians['OQLinux'][s] / medians['raw'][s]:.2f}" for s in sizes) + " |")
    return lines


def style(row):
    """Returns the colour and marker of a row, which are the same in every plot."""
    looks = {"OQLinux": ("#c1121f", "o"), "raw": ("#000000", "|"), "fixed": ("#555555", "D"), "std": ("#0072b2", "s"),
             "Boost": ("#e69f00", "^"), "POCO": ("#009e73", "v"), "APR": ("#56b4e9", "<"), "GLib": ("#cc79a7", ">"),
             "spdlog": ("#6a3d9a", "P"), "fork": ("#8c564b", "X"), "posix_spawn": ("#7f7f00", "d")}
    return looks.get(row, looks.get(row.split()[0], ("#777777", "*")))


def plots(families, sizes, directory):
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot, ticker
    pyplot.rcParams.update({"svg.hashsalt": "oqbench", "font.size": 9, "axes.spines.top": False,
                            "axes.spines.right": False, "legend.frameon": False})

    figure, axes = pyplot.subplots(figsize=(10, 0.36 * len(families) + 1.6))
    seen = {}
    for place, (group, rows) in enumerate(families.items()):
        title, reference, goal, _ = FAMILIES[group]
        raw = rows["raw"][0]
        for row, (time, _) in rows.items():
            if row == "raw" or row in OWN_ROWS[3:]:
                continue
            colour, marker = style(row)
            ours = row == "OQLinux"
            # Values beyond the edges are drawn on the edges. Peers are drawn a little lower, so that they stay visible.
            seen[row.replace(" pipe", "")] = axes.scatter(
                min(max(time / raw, 0.3), 20), place - 0.1 if ours else place + 0.2, s=70 if ours else 40, color=colour,
                marker=marker, zorder=4 if ours else 3, linewidths=0, clip_on=False)
        limit = goal * rows[reference][0] / raw
        seen["goal"] = axes.plot([limit, limit], [place - 0.38, place + 0.38], color="#c1121f", linewidth=1.2)[0]
    axes.axvline(1, color="black", linewidth=0.8)
    axes.set_xscale("log")
    axes.set_xlim(0.29, 21)
    axes.set_xticks([0.3, 0.5, 0.7, 1, 1.5, 2, 3, 5, 10, 20],
                    ["≤ 0.3", "0.5", "0.7", "1", "1.5", "2", "3", "5", "10", "≥ 20"])
    axes.xaxis.set_minor_locator(ticker.NullLocator())
    axes.set_yticks(range(len(families)), [FAMILIES[group][0] for group in families])
    axes.invert_yaxis()
    axes.grid(axis="both", color="#dddddd", linewidth=0.5)
    axes.set_axisbelow(True)
    axes.set_xlabel("time, as a multiple of the raw calls (log scale); left is faster")
    names = sorted(seen, key=lambda name: (name not in ("OQLinux", "goal", "fixed"), name.lower()))
    figure.legend([seen[name] for name in names], names, loc="upper center", ncols=9)
    figure.tight_layout(rect=(0, 0, 1, 1 - 0.55 / figure.get_size_inches()[1]))
    figure.savefig(directory / "ratios.svg", metadata={"Date": None})

    figure, grid = pyplot.subplots(3, 2, figsize=(10, 11))
    for axes, (group, rows) in zip(grid.flat, sizes.items()):
        title, axis = SIZES[group]
        for row, values in rows.items():
            colour, _ = style(row)
            points = sorted((size, statistics.median(times)) for size, times in values.items())
            axes.plot(*zip(*points), marker="o", markersize=3.5, linewidth=1.8 if row == "OQLinux" else 1.1,
                      color=colour, linestyle="--" if row == "raw" else "-", label=row, zorder=4 if row == "raw" else 3)
        axes.set_xscale("log", base=2 if group == "contention" else 10)
        axes.set_yscale("log")
        axes.xaxis.set_major_formatter(ticker.FuncFormatter(lambda value, _: f"{value:,.0f}"))
        axes.yaxis.set_major_formatter(ticker.FuncFormatter(lambda value, _: duration(value)))
        axes.yaxis.set_minor_formatter(ticker.NullFormatter())
        low, high = axes.get_ylim()
        if high / low < 10:
            axes.set_ylim(low / 2, high * 2)
        axes.set_title(title, loc="left", fontweight="bold")
        axes.set_xlabel(axis)
        axes.grid(color="#dddddd", linewidth=0.5)
        axes.legend()
    for axes in list(grid.flat)[len(sizes):]:
        axes.set_axis_off()
    figure.tight_layout()
    figure.savefig(directory / "sizes.svg", metadata={"Date": None})


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("results", type=pathlib.Path)
    arguments.add_argument("library", type=pathlib.Path)
    arguments.add_argument("--docs", type=pathlib.Path)
    given = arguments.parse_args()

    found = {path.stem: path for path in given.results.glob("*.json")}
    families = {group: median_rows(found[group]) for group in FAMILIES if group in found}
    sizes = {group: read(found[group]) for group in SIZES if group in found}
    machine = (given.results / "machine").read_text().splitlines()
    text = [f"Run of {datetime.date.today()}.", ""] + [f"- {line}" for line in machine] + [""]
    clocks = {group: clock_ratio(found[group]) for group in families}
    text += family_table(families, clocks, given.library)
    if given.docs is None:
        print("\n".join(text + size_table(sizes)))
        return

    directory = given.docs / "benchmarks"
    directory.mkdir(exist_ok=True)
    plots(families, sizes, directory)
    text += ["", "![Time of each operation and of its peers as a multiple of the raw calls](benchmarks/ratios.svg)", "",
             "## Cost against size", "",
             "![Time against message length, lines, memory and threads](benchmarks/sizes.svg)"]
    page = given.docs / "benchmarks.md"
    before, _, rest = page.read_text().partition(BETWEEN[0])
    after = rest.partition(BETWEEN[1])[2]
    page.write_text(before + BETWEEN[0] + "\n" + "\n".join(text) + "\n\n" + BETWEEN[1] + after)
    print("\n".join(text + size_table(sizes)))


main()
