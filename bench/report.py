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
GAIN = "throughput of two threads / of one"
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


def verdict(ours, rivals, best=min):
    """Ours by the best of the rivals, where less is better or more; bold where we lose."""
    ratio = ours / best(rivals)
    loses = ratio > 1 if best is min else ratio < 1
    return f"**{ratio:.2f}**" if loses else f"{ratio:.2f}"


class Stamps:
    """Of which commit figures are, and what the machine was loaded with, by the names of runs."""

    def __init__(self, results):
        self.stamps = {file.stem: file.read_text().split() for file in results.glob("*.stamp")}

    def line(self, prefix, has_times=True):
        stamps = [stamp for name, stamp in sorted(self.stamps.items()) if name.startswith(prefix)]
        if not stamps:
            return ""
        commits = " and ".join(dict.fromkeys(commit for commit, _ in stamps))
        loads = ", ".join(load for _, load in stamps)
        return f"Commit {commits}" + (f"; load of the machine before: {loads}" if has_times else "")


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


def read_misses(results):
    """By map, or `query`, and work: misses of the first-level cache and instructions, each."""
    counts = {}
    for profile in results.glob("misses.*.*"):
        events = re.search(r"^events: (.*)", profile.read_text(errors="replace"), re.M)
        if not events:
            continue
        totals = re.search(r"^(?:summary|totals): (.*)", profile.read_text(), re.M)
        cost = dict(zip(events[1].split(), map(int, totals[1].split())))
        operations = int(Path(f"{profile}.txt").read_text().split()[0])
        _, name, work = profile.name.split(".")
        # Zeros at the end are left out.
        misses = cost["D1mr"] + cost.get("D1mw", 0)
        counts[name, work] = misses / operations, cost["Ir"] / operations
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
    return "\n".join([
        f"- Machine: {first_line('lscpu', 'Model name: *(.*)')}, {context['num_cpus']} cores at "
        f"{context['mhz_per_cpu']:,} MHz; {caches}",
        f"- Compiler: {context['compiler']}, `{context['flags']}` ({context['build_type']}); "
        f"{first_line(['ldd', '--version'], '[(](.*)[)]')}",
        f"- JVM: {first_line(['java', '-version'], 'Runtime Environment [(]build (.*)[)]')}",
        f"- Date: {context['date'][:10]}",
    ])


def native_part(native):
    rows, lost = [], defaultdict(int)
    beside = ["std-map", "btree-map"]
    for case, size, figures in native.against_rivals():
        ratios = []
        for rival in beside:
            theirs = native.get(case, rival, size).median
            ratios.append(verdict(figures[0].median, [theirs]))
            lost[rival] += figures[0].median > theirs
        rows.append([f"`{case}`", f"{size:,}" if size else "recorded",
                     f"{native.ranges[case, size]:,}", *figures, *ratios])
    header = ["Case", "*n*", "Ranges afterwards", *MAPS.values(),
              *(f"skip list / {MAPS[rival]}" for rival in beside)]
    losses = " and ".join(f"to {MAPS[rival]} in {lost[rival]}" for rival in beside)
    rounds = sorted({(size, figures[0].rounds) for _, size, figures in native.against_rivals()})
    rounds = ", ".join(f"{count} at {size:,}" if size else f"{count} of the trace"
                       for size, count in rounds)
    return (f"Nanoseconds per operation: median ± coefficient of variation; rounds: {rounds}.\n\n"
            + table(header, rows) + f"\n\nThe skip list loses {losses} of {len(rows)} cases "
            "(in bold).\n\n![Ratios](charts/ratios.svg)")


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


def misses_part(misses):
    works = ["find", "insert", "overwrite"]
    rows = [[MAPS[name], *("{:.1f}, {:,.0f}".format(*misses[name, work]) for work in works)]
            for name in MAPS if (name, "find") in misses]
    query = "{:.1f}, {:,.0f}".format(*misses["query", "find"])
    return table(["Misses, instructions an operation", *(f"`{work}`" for work in works)],
                 [*rows, ["skip list, the query alone", query, "", ""]])


class Java:
    """The figures of the benchmark of Java maps."""

    def __init__(self, entries):
        self.entries, self.rows = entries, {}
        for entry in entries:
            row = entry["case"], entry["ranges"], entry["metric"]
            self.rows.setdefault(row, {})[entry["map"]] = entry

    def size(self, case):
        """The smallest that was measured, if any."""
        return min((size for what, size, _ in self.rows if what == case), default=None)

    def title(self, case):
        return f"`{case}` in the JVM, {self.size(case):,} ranges"

    def medians(self, case, metric):
        """By map, of the smallest size."""
        by_map = self.rows.get((case, self.size(case), metric), {})
        return {name: entry["median"] for name, entry in by_map.items()}


def java_part(java):
    rows = []
    for (case, ranges, metric), by_map in java.rows.items():
        rivals = [by_map[name]["median"] for name in JAVA_RIVALS if name in by_map]
        best = max if metric == GAIN else min
        ratio = ""
        if OUR_JAVA in by_map and rivals:
            ratio = verdict(by_map[OUR_JAVA]["median"], rivals, best)
        cells = [java_cell(by_map[name]) if name in by_map else "" for name in JAVA_MAPS]
        rows.append([f"`{case}`", f"{ranges:,}", metric, *cells, ratio])
    rounds = sorted({entry["rounds"] for entry in java.entries})
    return ("Median (smallest–largest); rounds: "
            + ", ".join(map(str, rounds)) + ".\n\n"
            + table(["Case", "Ranges", "Figure", *JAVA_MAPS, f"{OUR_JAVA} / best Java map"], rows)
            + "\n\n![Latencies](charts/java-latencies.svg)")


def java_cell(entry):
    if entry["min"] == entry["max"]:
        return number(entry["median"])
    return f"{number(entry['median'])} ({number(entry['min'])}–{number(entry['max'])})"


# --- Aims ---------------------------------------------------------------------------------------

# What the times of the skip list may be, beside std::map.
MOST_BESIDE_TREE = {"find": 1.0, "insert": 1.2, "overwrite": 1.0}
# Beside the B-tree, before there were signposts, by size; half of that is aimed at.
BESIDE_BTREE_BEFORE = {
    "find": {10**4: 2.69, 10**5: 7.41, 10**6: 4.08, 10**7: 4.94},
    "insert": {10**4: 2.08, 10**5: 3.55, 10**6: 3.77, 10**7: 4.06},
    "overwrite": {10**4: 1.89, 10**5: 5.28, 10**6: 3.36, 10**7: 4.04},
}


class Aims:
    """Rows that set what was measured beside what was aimed at."""

    def __init__(self):
        self.rows = []

    def most(self, what, value, limit):
        self.add(what, value, "at most", limit, value <= limit)

    def least(self, what, value, limit):
        self.add(what, value, "at least", limit, value >= limit)

    def add(self, what, value, kind, limit, met):
        verdict = "met" if met else f"**missed by {100 * abs(value / limit - 1):.0f} %**"
        self.rows.append([what, f"{kind} {aim(limit)}", aim(value), verdict])


def aim(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.2f}".rstrip("0").rstrip(".")


def aim_at_counts(aims, instructions, misses):
    if ("query", "find") in misses:
        missed, executed = misses[OURS, "find"]
        aims.most("`find` among 300,000, first-level misses, simulated", missed, 16)
        aims.most("the same, instructions, with the reading of what is found", executed, 450)
        aims.most("the same, instructions of the query alone", misses["query", "find"][1], 450)
    if OURS in instructions:
        total, requests = instructions[OURS]
        aims.most("trace, instructions a request", total / requests, 800)


def aim_at_native(aims, native):
    for case, most in MOST_BESIDE_TREE.items():
        for size in sorted({size for what, size in native.rows() if what == case}):
            ours, tree, btree = (native.get(case, name, size).median
                                 for name in (OURS, "std-map", "btree-map"))
            if size >= 10**5:
                aims.most(f"`{case}`, {size:,}, time / that of `std::map`", ours / tree, most)
            aims.most(f"`{case}`, {size:,}, time / that of `absl::btree_map`", ours / btree,
                      BESIDE_BTREE_BEFORE[case][size] / 2)
    bytes_per_range = [figure.median for (case, name, _), figure in native.figures.items()
                       if (case, name) == ("memory", OURS)]
    if bytes_per_range:
        aims.most("bytes a range, at the size that takes the most", max(bytes_per_range), 160)


def aim_at_java(aims, java):
    per_operation = "ns per operation"
    for case, metric, rivals, limit in [
            ("trace", per_operation, ["TreeMap"], 1.0),
            ("find", per_operation, JAVA_RIVALS, 0.9),
            ("find", "p99 ns", JAVA_RIVALS, 1.0),
            ("insert", per_operation, JAVA_RIVALS, 0.9),
            ("overwrite", per_operation, JAVA_RIVALS, 0.9),
            ("floor", per_operation, ["TreeMap"], 1.2),
            ("last", per_operation, ["TreeMap"], 1.2),
            ("mixed-2", f"{per_operation}, two threads", ["ConcurrentSkipListMap"], 1.0)]:
        medians = java.medians(case, metric)
        if medians:
            name = f"`{rivals[0]}`" if len(rivals) == 1 else "the best Java map"
            best = min(medians[rival] for rival in rivals if rival in medians)
            aims.most(f"{java.title(case)}, {metric} / that of {name}",
                      medians[OUR_JAVA] / best, limit)
    gains = java.medians("readers-2", GAIN)
    if gains:
        aims.least(f"{java.title('readers-2')}, {GAIN}", gains[OUR_JAVA], 1.8)
    pauses, heaps = (java.medians("held", metric)
                     for metric in ("full collection ms", "heap bytes"))
    if pauses:
        aims.most(f"{java.title('held')}, full collection, ms", pauses[OUR_JAVA], 6)
        aims.most(f"{java.title('held')}, heap bytes", heaps[OUR_JAVA], 5000)


def aims_part(native, instructions, misses, java):
    aims = Aims()
    aim_at_counts(aims, instructions, misses)
    aim_at_native(aims, native)
    if java:
        aim_at_java(aims, java)
    missed = sum("missed" in row[-1] for row in aims.rows)
    return (table(["Figure", "aimed at", "measured", ""], aims.rows)
            + f"\n\n{len(aims.rows) - missed} of {len(aims.rows)} are met.")


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


def draw_latencies(java, file):
    metrics = ["p50 ns", "p99 ns", "p99.9 ns"]
    cases = list(dict.fromkeys(case for case, _, metric in java.rows if metric in metrics))
    across = 3
    figure, panels = plt.subplots(-(-len(cases) // across), across, figsize=(10.2, 6.6),
                                  sharey=True, squeeze=False)
    for panel, case in zip(panels.flat, cases):
        for index, (name, color) in enumerate(zip(JAVA_MAPS, COLORS)):
            places = [place + 0.16 * (index - 2) for place in range(len(metrics))]
            heights = [java.medians(case, metric).get(name, 0) for metric in metrics]
            panel.bar(places, heights, 0.16, color=color, label=name)
        panel.set(title=case, yscale="log", ylabel="ns")
        panel.set_xticks(range(len(metrics)), [metric.removesuffix(" ns") for metric in metrics])
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

    stamps = Stamps(results)
    native = Native(sorted(results.glob("native-*.json")))
    instructions, misses = read_instructions(results), read_misses(results)
    java = None
    parts = {
        "machine": machine_part(native),
        "growth": "![Growth](charts/growth.svg)",
    }
    for name, part in [("native", native_part), ("buffers", buffers_part),
                       ("memory", memory_part), ("threads", threads_part)]:
        parts[name] = f"{stamps.line('native')}.\n\n{part(native)}"
    draw_growth(native, charts / "growth.svg")
    draw_ratios(native, charts / "ratios.svg")
    if instructions:
        parts["instructions"] = (f"{stamps.line('instructions', has_times=False)}.\n\n"
                                 + instructions_part(instructions))
    if ("query", "find") in misses:
        parts["misses"] = f"{stamps.line('misses', has_times=False)}.\n\n{misses_part(misses)}"
    files = sorted(results.glob("java*.json"))
    if files:
        java = Java([entry for file in files for entry in json.loads(file.read_text())])
        parts["java"] = f"{stamps.line('java')}.\n\n{java_part(java)}"
        draw_latencies(java, charts / "java-latencies.svg")
    parts["aims"] = aims_part(native, instructions, misses, java)

    text = document.read_text()
    for name, content in parts.items():
        text = replace_part(text, name, content)
    document.write_text(text)
    print(f"report: wrote {', '.join(parts)} in {document}")


if __name__ == "__main__":
    main()
