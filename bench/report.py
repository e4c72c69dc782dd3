#!/usr/bin/python3
"""Writes the results of scripts/bench into a document: report.py RESULTS DOCUMENT.

Replaces what is between <!-- bench:NAME --> and <!-- /bench:NAME --> in the document, for each part
of which there are results, and draws charts into the folder `charts` beside it.
"""

import json
import re
import statistics
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

import matplotlib
import matplotlib.pyplot as plt

OURS = "skip-list"
MAPS = {
    "skip-list": "skip list",
    "std-map": "`std::map`",
    "btree-map": "`absl::btree_map`",
    "icl-map": "`icl::interval_map`",
}
RIVALS = [name for name in MAPS if name != OURS]
OUR_JAVA = "OffHeapRangeMap"
JAVA_RIVALS = ["TreeMap", "ConcurrentSkipListMap", "TreeRangeMap"]
JAVA_MAPS = [OUR_JAVA, "native methods", *JAVA_RIVALS]
COLORS = ["#0072b2", "#e69f00", "#009e73", "#cc79a7", "#777777"]


class Figure:
    """Repeated measurements of one thing."""

    def __init__(self, values):
        self.rounds = len(values)
        self.median = statistics.median(values)
        self.spread = None
        if self.rounds > 1:
            self.spread = statistics.stdev(values) / statistics.mean(values)

    def __str__(self):
        spread = "" if self.spread is None else f" ± {100 * self.spread:.0f} %"
        return number(self.median) + spread


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def table(header, rows):
    """The first column is text, all others are numbers."""
    lines = [header, ["---"] + ["---:"] * (len(header) - 1), *rows]
    return "\n".join("| " + " | ".join(map(str, line)) + " |" for line in lines)


def verdict(ours, rivals):
    """Ours by the best of the rivals, where less is better; bold where we lose."""
    ratio = ours / min(rivals)
    return f"**{ratio:.2f}**" if ratio > 1 else f"{ratio:.2f}"


# --- Reading --------------------------------------------------------------------------------------


class Native:
    """The figures of the benchmark program, by case, map and size, in nanoseconds or bytes."""

    def __init__(self, files):
        self.contexts, self.ranges, self.order = [], {}, {}
        values = defaultdict(list)
        for file in files:
            content = json.loads(file.read_text())
            self.contexts.append(content["context"])
            for run in content["benchmarks"]:
                if run["run_type"] == "iteration":
                    self.add(values, run)
        self.figures = {key: Figure(measured) for key, measured in values.items()}

    def add(self, values, run):
        case, name, size = run["name"].split("/")[:3]
        size = int(size) if size.isdigit() else 0
        values[case, name, size].append(run.get("bytes_per_range", run.get("per_op", 0) * 1e9))
        self.ranges[case, size] = int(run["ranges"])
        # Runs come in random order; their families are numbered as they were registered.
        self.order[case] = min(run["family_index"], self.order.get(case, run["family_index"]))

    def get(self, case, name, size):
        return self.figures.get((case, name, size))

    def rows(self):
        """The cases, in the order in which they were registered, at each size."""
        return sorted(self.ranges, key=lambda row: (self.order[row[0]], row[1]))

    def against_rivals(self):
        for case, size in self.rows():
            figures = [self.get(case, name, size) for name in MAPS]
            if None not in figures and not case.startswith(("memory", "threads", "readers")):
                yield case, size, figures


def read_instructions(results):
    """By map: the instructions of the replay, and the requests that it served."""
    counts = {}
    for name in MAPS:
        profile, output = results / f"callgrind.{name}", results / f"callgrind.{name}.txt"
        if profile.exists():
            total = re.search(r"^(?:summary|totals): (\d+)", profile.read_text(), re.M)
            counts[name] = int(total[1]), int(output.read_text().split()[0])
    return counts


# --- Tables ---------------------------------------------------------------------------------------


def first_line(command, pattern):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    found = re.search(pattern, done.stdout + done.stderr)
    return found[1].strip() if found else "unknown"


def machine_part(native):
    context = native.contexts[0]
    caches = ", ".join(
        f"L{cache['level']} {cache['type'].lower()} {cache['size'] // 1024:,} KiB"
        for cache in context["caches"])
    loads = ", ".join(f"{context['load_avg'][0]:.1f}" for context in native.contexts)
    return "\n".join([
        f"- Machine: {first_line('lscpu', 'Model name: *(.*)')}, {context['num_cpus']} cores at "
        f"{context['mhz_per_cpu']:,} MHz; {caches}",
        f"- Compiler: {context['compiler']}, `{context['flags']}` ({context['build_type']}); "
        f"{first_line(['ldd', '--version'], '[(](.*)[)]')}",
        f"- JVM: {first_line(['java', '-version'], 'Runtime Environment [(]build (.*)[)]')}",
        f"- Commit {context['commit']}, {context['date'][:10]}; load of the machine at the start "
        f"of each run: {loads}",
    ])


def native_part(native):
    rows, lost = [], []
    for case, size, figures in native.against_rivals():
        ours, *rivals = [figure.median for figure in figures]
        rows.append([f"`{case}`", f"{size:,}" if size else "recorded",
                     f"{native.ranges[case, size]:,}", *figures, verdict(ours, rivals)])
        if ours > min(rivals):
            lost.append((ours / min(rivals), case, size))
    header = ["Case", "*n*", "Ranges afterwards", *MAPS.values(), "skip list / best rival"]
    summary = f"The skip list loses in {len(lost)} of {len(rows)} cases (in bold)"
    if lost:
        ratio, case, size = max(lost)
        summary += f", by the most, {ratio:.1f} times, in `{case}` of {size:,} ranges"
    rounds = sorted({(size, figures[0].rounds) for _, size, figures in native.against_rivals()})
    rounds = ", ".join(f"{count} at {size:,}" if size else f"{count} of the trace"
                       for size, count in rounds)
    return (f"Nanoseconds per operation: median ± coefficient of variation; rounds: {rounds}.\n\n"
            + table(header, rows) + f"\n\n{summary}.\n\n![Ratios](charts/ratios.svg)")


def buffers_part(native):
    rows = []
    for case, size in native.rows():
        buffered = native.get(case, OURS, size)
        plain = native.get(case.removesuffix("-buffers"), OURS, size)
        if case.endswith("-buffers") and plain:
            rows.append([f"`{case}`", f"{size:,}", buffered, plain,
                         f"{buffered.median / plain.median:.2f}"])
    return table(["Case", "*n*", "with buffers, ns", "without, ns", "ratio"], rows)


def memory_part(native):
    rows = [[f"{size:,}", *(number(native.get("memory", name, size).median) for name in MAPS)]
            for case, size in native.rows() if case == "memory"]
    return "Bytes of mapped memory per range, less what the heap keeps free.\n\n" + table(
        ["Ranges", *MAPS.values()], rows)


def threads_part(native):
    kinds = {"threads": "`overwrite`, a map each", "readers": "`find` in one map"}
    rows = []
    for case, size in native.rows():
        kind, _, count = case.partition("-")
        if kind not in kinds or count != "1":
            continue
        for name, title in MAPS.items():
            one, two = (native.get(f"{kind}-{threads}", name, size) for threads in (1, 2))
            rows.append([kinds[kind], title, f"{size:,}",
                         *(number(1e3 / each.median) for each in (one, two)),
                         f"{one.median / two.median:.2f}",
                         f"{100 * max(one.spread or 0, two.spread or 0):.0f} %"])
    return "Million operations a second, by the clock.\n\n" + table(
        ["Work", "Map", "*n*", "one thread", "two threads", "gain", "spread"], rows)


def instructions_part(counts):
    rows = [[MAPS[name], f"{total:,}", f"{total / requests:,.0f}",
             f"{counts[OURS][0] / total:.2f}"] for name, (total, requests) in counts.items()]
    return table(["Map", "Instructions", "per request", "skip list / this"], rows)


def java_part(entries):
    figures = {}
    for entry in entries:
        row = entry["case"], entry["ranges"], entry["metric"]
        figures.setdefault(row, {})[entry["map"]] = entry
    rows = []
    for (case, ranges, metric), by_map in figures.items():
        rivals = [by_map[name]["median"] for name in JAVA_RIVALS if name in by_map]
        ratio = verdict(by_map[OUR_JAVA]["median"], rivals) if OUR_JAVA in by_map and rivals else ""
        cells = [java_cell(by_map[name]) if name in by_map else "" for name in JAVA_MAPS]
        rows.append([f"`{case}`", f"{ranges:,}", metric, *cells, ratio])
    rounds = sorted({entry["rounds"] for entry in entries})
    return ("Median (smallest–largest); rounds: "
            + ", ".join(map(str, rounds)) + ".\n\n"
            + table(["Case", "Ranges", "Figure", *JAVA_MAPS, f"{OUR_JAVA} / best Java map"], rows)
            + "\n\n![Latencies](charts/java-latencies.svg)")


def java_cell(entry):
    if entry["min"] == entry["max"]:
        return number(entry["median"])
    return f"{number(entry['median'])} ({number(entry['min'])}–{number(entry['max'])})"


# --- Charts ---------------------------------------------------------------------------------------


def save(figure, file):
    figure.tight_layout()
    figure.savefig(file, metadata={"Date": None})
    plt.close(figure)


def plain(name):
    return MAPS[name].strip("`")


def draw_growth(native, file):
    figure, panels = plt.subplots(1, 3, figsize=(10, 3.6), sharey=True)
    for panel, case in zip(panels, ("insert", "find", "overwrite")):
        for name, color in zip(MAPS, COLORS):
            points = sorted((size, value.median) for (what, which, size), value
                            in native.figures.items() if (what, which) == (case, name))
            panel.loglog(*zip(*points), marker="o", color=color, label=plain(name))
        panel.set(title=case, xlabel="ranges")
        panel.grid(alpha=0.3)
    panels[0].set_ylabel("ns per operation")
    panels[0].legend(fontsize="small")
    save(figure, file)


def draw_ratios(native, file):
    """Of each case at its largest size but ten million, which has few cases."""
    largest = {case: (size, figures) for case, size, figures in native.against_rivals()
               if size <= 1_000_000}
    figure, panel = plt.subplots(figsize=(8, 0.6 + 0.5 * len(largest)))
    for index, (name, color) in enumerate(zip(RIVALS, COLORS[1:])):
        ratios = [figures[0].median / figures[index + 1].median for _, figures in largest.values()]
        places = [place + 0.25 * (index - 1) for place in range(len(largest))]
        widths = [ratio - 1 for ratio in ratios]
        panel.barh(places, widths, 0.25, left=1, color=color, label=plain(name))
    panel.axvline(1, color="black", linewidth=1)
    panel.set_xscale("log")
    panel.xaxis.set_major_formatter("{x:g}")
    panel.set_yticks(range(len(largest)), [f"{case} {size:,}" if size else case
                                           for case, (size, _) in largest.items()])
    panel.invert_yaxis()
    panel.set_xlabel("time of the skip list / time of the rival: the skip list is faster below 1")
    panel.legend(fontsize="small")
    save(figure, file)


def draw_latencies(entries, file):
    metrics = ["p50 ns", "p99 ns", "p99.9 ns"]
    values = {(entry["case"], entry["metric"], entry["map"]): entry["median"] for entry in entries}
    cases = list(dict.fromkeys(case for case, metric, _ in values if metric in metrics))
    figure, panels = plt.subplots(1, len(cases), figsize=(3.4 * len(cases), 3.6), sharey=True,
                                  squeeze=False)
    for panel, case in zip(panels[0], cases):
        for index, (name, color) in enumerate(zip(JAVA_MAPS, COLORS)):
            places = [place + 0.16 * (index - 2) for place in range(len(metrics))]
            heights = [values.get((case, metric, name), 0) for metric in metrics]
            panel.bar(places, heights, 0.16, color=color, label=name)
        panel.set(title=case, yscale="log")
        panel.set_xticks(range(len(metrics)), [metric.removesuffix(" ns") for metric in metrics])
    panels[0][0].set_ylabel("ns")
    panels[0][0].legend(fontsize="x-small")
    save(figure, file)


# --- The document ---------------------------------------------------------------------------------


def replace_part(text, name, content):
    begin, end = f"<!-- bench:{name} -->", f"<!-- /bench:{name} -->"
    if begin not in text or end not in text:
        sys.exit(f"report: no place for {begin} in the document")
    return text[:text.index(begin) + len(begin)] + f"\n{content}\n" + text[text.index(end):]


def main():
    results, document = Path(sys.argv[1]), Path(sys.argv[2])
    charts = document.parent / "charts"
    charts.mkdir(exist_ok=True)
    # The same file for the same figures, and text as text.
    matplotlib.rcParams.update({"svg.hashsalt": "bench", "svg.fonttype": "none"})

    native = Native(sorted(results.glob("native-*.json")))
    parts = {
        "machine": machine_part(native),
        "native": native_part(native),
        "growth": "![Growth](charts/growth.svg)",
        "buffers": buffers_part(native),
        "memory": memory_part(native),
        "threads": threads_part(native),
    }
    draw_growth(native, charts / "growth.svg")
    draw_ratios(native, charts / "ratios.svg")
    counts = read_instructions(results)
    if counts:
        parts["instructions"] = instructions_part(counts)
    java = results / "java.json"
    if java.exists():
        entries = json.loads(java.read_text())
        parts["java"] = java_part(entries)
        draw_latencies(entries, charts / "java-latencies.svg")

    text = document.read_text()
    for name, content in parts.items():
        text = replace_part(text, name, content)
    document.write_text(text)
    print(f"report: wrote {', '.join(parts)} in {document}")


if __name__ == "__main__":
    main()
