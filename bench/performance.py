#!/usr/bin/python3
"""Writes the figures of a benchmark run into docs/performance.md and draws its charts.

    bench/performance.py DOCUMENT.md PROGRAM.json…

PROGRAM.json is the output of peerbench, workloadbench or checkbench with --benchmark_out. In the
document everything between a line "<!-- figures: NAME -->" and the next "<!-- end -->" is replaced if
NAME is a table of one of these programs; the rest is not changed. Charts, from peerbench only, are
written to the folder "pictures" next to the document. Ends with 1 if the figures do not fit the
document.
"""

import datetime
import io
import json
import math
import pathlib
import re
import statistics
import subprocess
import sys

import matplotlib
from matplotlib import pyplot

REFERENCE = " (reference host)"
TABLES = ["heap-48", "heap-mixed", "heap-threads", "cell-churn", "cell-pair", "hash-insert",
          "hash-get", "hash-delete", "graph-encode", "graph-decode", "text-encode", "text-decode",
          "sink-new", "sink-known", "concat"]
HOST_COSTS = [("frames", "frame"), ("anchors", "anchor"), ("gates", "gate pair"),
              ("protects", "protection pair"), ("storage", "storage pair")]
PACKAGES = ["libbenchmark-dev", "libmimalloc-dev", "libboost-dev", "libapr1-dev", "libabsl-dev",
            "libflatbuffers-dev", "libcapnp-dev", "libprotobuf-dev", "rapidjson-dev"]


class Figures:
    """The quietest repetition of each benchmark, by name: "table/row" or "table/row/column"."""

    def __init__(self, path):
        with open(path, encoding="utf-8") as file:
            data = json.load(file)
        self.context = data["context"]
        runs, self.skipped, self.counters = {}, {}, {}
        for run in sorted(data["benchmarks"], key=lambda run: run["family_index"]):
            if run["run_type"] != "iteration":
                continue
            name = run["name"].removesuffix("/manual_time")
            if run.get("error_occurred"):
                self.skipped[name] = run["error_message"]
            elif "ns" not in run:  # it counts bytes
                self.counters[name.removesuffix("/iterations:1")] = run
            else:
                runs.setdefault(name, []).append(run)
        self.repetitions = max(len(group) for group in runs.values())
        self.order = list(runs)
        self.quietest = {name: min(group, key=lambda run: run["ns"])
                         for name, group in runs.items()}
        self.disturbance = statistics.median(
            statistics.median(run["median"] for run in group) / self.quietest[name]["ns"]
            for name, group in runs.items())

    def ns(self, name):
        return self.quietest[name]["ns"] if name in self.quietest else None

    def parts(self, table):
        """Rows and columns of a table, in the order of the run, the library's first."""
        rows, columns = [], []
        for name in list(self.order) + list(self.skipped):
            parts = name.split("/")
            if parts[0] != table or parts[1].endswith(REFERENCE):
                continue
            rows += [parts[1]] if parts[1] not in rows else []
            column = parts[2] if len(parts) > 2 else None
            columns += [column] if column not in columns else []
        columns.sort(key=lambda column: 0 if column is None else int(column))
        rows.sort(key=lambda row: not is_library(row))
        return rows, columns

    def floor(self, name):
        """The cost of the host calls of one operation, under the same host."""
        run = self.quietest[name]
        host = REFERENCE if REFERENCE in name else ""
        total = sum(run[calls] * self.ns(f"floor/{cost}{host}") for calls, cost in HOST_COSTS)
        if name.startswith("hash-"):
            total += self.ns("floor-hash/chain walk/" + name.rsplit("/", 1)[1])
        return total


def is_library(row):
    return row.startswith("MEM_")


def full_name(table, row, column):
    return f"{table}/{row}" + ("" if column is None else f"/{column}")


def number(value):
    if value is None:
        return "–"
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def times(value):
    if value is None:
        return "–"
    if round(value, 2) < 0.1:
        return f"{value:.1g}" if value >= 0.0001 else "0"
    return f"{value:.2f}" if value < 10 else f"{value:,.0f}"


def markdown(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|---" + "|--:" * (len(head) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def comparison(figures, table):
    """A row for each way to do the work: nanoseconds, and the ratio to the library's first row."""
    rows, columns = figures.parts(table)
    base = rows[0]
    head = ["nanoseconds per operation"]
    for column in columns:
        head += ["" if column is None else f"{int(column):,}", "× library"]
    lines = []
    for row in rows:
        line = [f"**{row}**" if is_library(row) else row]
        for column in columns:
            ns = figures.ns(full_name(table, row, column))
            own = figures.ns(full_name(table, base, column))
            line += [number(ns), times(ns / own if ns and own else None)]
        lines.append(line)
    return markdown(head, lines)


def sizes(figures, table):
    rows, columns = figures.parts(table)
    head = ["bytes per package"] + [f"{int(column):,}" for column in columns]
    return markdown(head, [
        [f"**{row}**" if is_library(row) else row] +
        [number(figures.quietest.get(full_name(table, row, column), {}).get("bytes"))
         for column in columns] for row in rows])


def floors(figures):
    rows, _ = figures.parts("floor")
    lines = [[row, number(figures.ns(f"floor/{row}")), number(figures.ns(f"floor/{row}{REFERENCE}"))]
             for row in rows]
    for column in (1000, 3000, 10000):
        lines.append([f"caller's hash function and walk of a chain, {column:,} records",
                      number(figures.ns(f"floor-hash/chain walk/{column}")), "–"])
    return markdown(["nanoseconds", "bench host", "reference host"], lines)


# Service, benchmark, and the multiple of the floor that is the aim.
SERVICES = [
    ("heap entry, slot 14", "heap-48/MEM_HeapAllocEntryLong", 1.5),
    ("heap entry, slot 12", "heap-48/MEM_HeapAllocEntry", 1.5),
    ("enhanced heap entry", "heap-48/MEM_EHeapAllocEntry", None),
    ("cell alloc", "cell-half/MEM_CellAllocEntry", 1.3),
    ("cell free", "cell-half/MEM_CellFreeEntry", 1.3),
    ("hash get, chains of 1", "hash-get/MEM_HashGetEntry/1000", 1.5),
    ("hash get, chains of 3", "hash-get/MEM_HashGetEntry/3000", 1.5),
    ("hash get, chains of 10", "hash-get/MEM_HashGetEntry/10000", None),
    ("hash insert, chains of 1", "hash-insert/MEM_HashInsEntry/1000", None),
    ("hash delete, chains of 1", "hash-delete/MEM_HashDelEntry/1000", None),
    ("pack, a package of 1,000", "graph-encode/MEM_Pack/1000", None),
    ("pack, a package of 10,000", "graph-encode/MEM_Pack/10000", None),
    ("pack, a package of 100,000", "graph-encode/MEM_Pack/100000", None),
    ("port string write, a package of 10,000", "text-encode/MEM_StructToPortStr/10000", None),
    ("port string read, a package of 10,000", "text-decode/MEM_Port1StrToStruct/10000", None),
    ("sink, new string of 10,000", "sink-new/MEM_SinkString/10000", None),
    ("sink, known string of 10,000", "sink-known/MEM_SinkString/10000", None),
    ("append of 10 units, slot 29", "concat/MEM_MemCat/10", None),
    ("append of 10 units, slot 28", "concat/MEM_Cat/10", None),
]


def under_reference_host(name):
    table, row, *column = name.split("/")
    return "/".join([table, row + REFERENCE, *column])


def host_calls(run):
    words = [("frames", "frame"), ("anchors", "anchor"), ("gates", "gate pair"),
             ("protects", "protection pair"), ("storage", "storage pair")]
    named = [f"{word}: {run[key]:.3g}" for key, word in words if run[key] >= 0.01]
    return ", ".join(named)


def multiples(figures):
    head = ["service", "host calls of one operation", "floor", "measured", "multiple", "aim",
            "multiple, reference host"]
    lines = []
    for label, name, wished in SERVICES:
        if name not in figures.quietest:
            continue
        reference = under_reference_host(name)
        other = figures.ns(reference)
        lines.append([label, host_calls(figures.quietest[name]), number(figures.floor(name)),
                      number(figures.ns(name)), times(figures.ns(name) / figures.floor(name)),
                      "–" if wished is None else f"{wished}",
                      "–" if other is None else times(other / figures.floor(reference))])
    return markdown(head, lines)


def best_peer(figures, table, column, without=()):
    rows, _ = figures.parts(table)
    peers = {row: figures.ns(full_name(table, row, column)) for row in rows
             if not is_library(row) and row not in without}
    return min(((ns, row) for row, ns in peers.items() if ns is not None))


def aims(figures):
    ns = figures.ns
    lines = []

    def add(aim, name, limit, what):
        own = ns(name)
        floor = figures.floor(name) if own is not None else None
        met = "not measured" if own is None or limit is None else "yes" if own <= limit else "no"
        if met == "no" and floor > limit:
            met = "no: limit below the floor"
        lines.append([aim, number(own), f"{number(limit)} ({what})", number(floor), met])

    for label, name, wished in SERVICES:
        if wished is not None:
            add(f"{label}: at most {wished} times its floor", name, wished * figures.floor(name),
                f"{wished} × floor")
    add("heap entry, slot 14: no more than mimalloc's malloc (and free)",
        "heap-48/MEM_HeapAllocEntryLong", ns("heap-48/mi_malloc and mi_free"), "mimalloc")
    add("cell alloc and free: at most 2.5 times mimalloc",
        "cell-churn/MEM_CellAllocEntry, MEM_CellFreeEntry",
        2.5 * ns("cell-churn/mi_malloc and mi_free"), "2.5 × mimalloc")
    for count in (1000, 10000, 100000):
        pack = f"graph-encode/MEM_Pack/{count}"
        add(f"pack, {count:,} packages: at most 2.5 times Cap'n Proto", pack,
            2.5 * ns(f"graph-encode/Cap'n Proto/{count}"), "2.5 × Cap'n Proto")
        best, row = best_peer(figures, "graph-encode", str(count), without=("Cap'n Proto",))
        add(f"pack, {count:,} packages: below every other peer's encode", pack, best, row)
    small = ns("graph-encode/MEM_Pack/1000")
    add("pack: flat in the size of the graph", "graph-encode/MEM_Pack/100000",
        1.5 * small if small else None, "1.5 × 1,000 packages")
    for count in (1000, 10000, 100000):
        best, row = best_peer(figures, "graph-decode", str(count))
        unpack = f"graph-decode/MEM_Unpack in place/{count}"
        add(f"unpack in place, {count:,} packages: below every peer's decode", unpack, best, row)
        best, row = best_peer(figures, "graph-decode", str(count), without=("FlatBuffers",))
        add(f"unpack in place, {count:,} packages: below every peer that checks what it reads",
            unpack, best, row)
    for count in (1000, 10000, 100000):
        add(f"port string write, {count:,} packages: below RapidJSON",
            f"text-encode/MEM_StructToPortStr/{count}", ns(f"text-encode/RapidJSON/{count}"),
            "RapidJSON")
        best, row = best_peer(figures, "text-decode", str(count), without=("protobuf TextFormat",))
        add(f"port string read, {count:,} packages: below RapidJSON",
            f"text-decode/MEM_Port1StrToStruct/{count}", best, row)
    return markdown(["aim", "measured", "limit", "floor", "met"], lines)


# Work, benchmark, what it is compared with, its benchmark, and the ratio that is the aim.
WORKLOADS = [
    ("read a structure with a union of 1,024 required alternatives",
     "alternatives/MEM_Port1StrToStruct/1024",
     "of 256", "alternatives/MEM_Port1StrToStruct/256", "at most 5"),
    ("read 20,000 structures in chunks, newer fields skipped and traced",
     "skips/MEM_PortStrToStruct/20000", "10,000", "skips/MEM_PortStrToStruct/10000", "about 2"),
    ("pack a structure of 20,000, addresses 1 byte apart", "pack-leaves/1 apart/20000",
     "16 bytes apart", "pack-leaves/16 apart/20000", "at most 3"),
    ("pack a structure of 400,000, addresses 1 byte apart", "pack-leaves/1 apart/400000",
     "16 bytes apart", "pack-leaves/16 apart/400000", "at most 3"),
    ("write a structure of 20,000, addresses 1 byte apart", "write-leaves/1 apart/20000",
     "16 bytes apart", "write-leaves/16 apart/20000", "at most 3"),
    ("write a structure of 400,000, addresses 1 byte apart", "write-leaves/1 apart/400000",
     "16 bytes apart", "write-leaves/16 apart/400000", "at most 3"),
    ("append 10 units, slot 28", "append/MEM_Cat/10", "slot 29", "append/MEM_MemCat/10", "–"),
    ("append 1,000 units, slot 28", "append/MEM_Cat/1000",
     "slot 29", "append/MEM_MemCat/1000", "at most 1.25"),
    ("unpack an item in place, other byte order", "unpack/other order",
     "native order", "unpack/native", "–"),
]


def workloads(figures):
    head = ["nanoseconds per operation", "measured", "compared with", "measured", "ratio", "aim"]
    lines = []
    for label, name, other_label, other, wished in WORKLOADS:
        own, beside = figures.ns(name), figures.ns(other)
        lines.append([label, number(own), other_label, number(beside),
                      times(own / beside if own and beside else None), wished])
    return markdown(head, lines).replace("|--:|--:|--:|--:|--:|", "|--:|---|--:|--:|---|")


def catalogues(figures):
    _, columns = figures.parts("pack-catalogue")
    head = ["packages in the catalogue"] + columns
    return markdown(head, [["nanoseconds per package"] + [
        number(figures.ns(f"pack-catalogue/MEM_Pack/{column}")) for column in columns]])


CHECKED_MODES = [("without", "none"), ("layer", "layer"),
                 ("layer and statistics", "layer and statistics"), ("statistics alone", "statistics"),
                 ("after detaching", "detached")]
CHECKED_WORKS = [
    ("standard heap: an entry of 48 bytes, with its share of open and close", "standard heap"),
    ("enhanced heap: an entry of 48 bytes, and its free", "enhanced heap"),
    ("cell pool: one of 1,000 cells of 64 bytes freed, another allocated", "cell pool"),
    ("hash table: a record of 32 bytes inserted and found", "hash table"),
    ("another service (slot 43)", "another service"),
]


def checking(figures):
    """Nanoseconds of each work in each mode, and the ratio to that without a layer."""
    head = ["nanoseconds per operation"]
    for label, _ in CHECKED_MODES:
        head += [label] if label == "without" else [label, "× without"]
    lines = []
    for label, work in CHECKED_WORKS:
        plain = figures.ns(f"{work}/none")
        line = [label, number(plain)]
        for _, mode in CHECKED_MODES[1:]:
            ns = figures.ns(f"{work}/{mode}")
            line += [number(ns), times(ns / plain if ns and plain else None)]
        lines.append(line)
    return markdown(head, lines)


def checking_bytes(figures):
    head = ["bytes for an entry of 48 bytes"] + [label for label, _ in CHECKED_MODES]
    return markdown(head, [
        [label] + [f"{figures.counters[f'bytes/{mode}'][counter]:,.0f}" for _, mode in CHECKED_MODES]
        for label, counter in [("the host's", "host"), ("the layer's own", "layer")]])


def verification(figures):
    ns = figures.ns("verification/layer")
    return f"One verification takes {number(ns)} nanoseconds an entry: {ns / 100:.1f} ms for 10,000.\n"


def command_output(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout
    except (OSError, subprocess.CalledProcessError):
        return ""


def machine(figures):
    cpu = re.search(r"^model name\s*:\s*(.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    caches = ", ".join(f"{'L' + str(cache['level'])} {cache['type'].lower()} "
                       f"{cache['size'] // 1024:,} KB" for cache in figures.context["caches"])
    system = re.search(r'^PRETTY_NAME="(.*)"$', pathlib.Path("/etc/os-release").read_text(), re.M)
    versions = [line.split("\t") for line in command_output(
        ["dpkg-query", "-W", "-f", "${Package}\t${Version}\n", *PACKAGES]).splitlines()]
    load = figures.context.get("load_avg", [])
    lines = [
        ["date", datetime.date.today().isoformat()],
        ["processor", f"{figures.context['num_cpus']} × {cpu.group(1) if cpu else 'unknown'}, "
                      f"{figures.context['mhz_per_cpu']:,} MHz"],
        ["caches", caches],
        ["load when the run began", f"{load[0]:.1f}" if load else "unknown"],
        ["system", system.group(1) if system else "unknown"],
        ["compiler", f"g++ {figures.context.get('compiler', '')}, `-O2 -DNDEBUG` for the library "
                     "and for all peers that are compiled here"],
        ["peers", ", ".join(f"{name} {version}" for name, version in versions)],
        ["repetitions", f"{figures.repetitions}, in mixed order; each figure is from the quietest one"],
        ["disturbance", f"for half of the benchmarks, the median batch took more than "
                        f"{figures.disturbance:.2f} times the figure"],
    ]
    return markdown(["", ""], lines).replace("|--:|", "|---|")


# Charts, as SVG text that is the same for the same figures. A white ground of their own keeps them
# readable on pages of any colour. The library is drawn in one strong colour, the peers in quiet ones.
matplotlib.use("svg")
matplotlib.rcParams.update({
    "svg.hashsalt": "performance", "svg.fonttype": "none", "font.family": "sans-serif", "font.size": 9,
    "axes.titlesize": 11, "axes.titleweight": "bold", "axes.titlelocation": "left",
    "axes.spines.top": False, "axes.spines.right": False, "figure.facecolor": "white"})
LIBRARY_COLOUR = "#c0392b"
PEER_COLOURS = ["#34699a", "#6b8e4e", "#8e6bab", "#b8860b", "#5f9ea0", "#777777", "#444444"]


def embolden_library(texts):
    for text in texts:
        if is_library(text.get_text()):
            text.set_weight("bold")


def svg_of(figure):
    text = io.StringIO()
    figure.savefig(text, format="svg", bbox_inches="tight", metadata={"Creator": None, "Date": None})
    pyplot.close(figure)
    return "\n".join(line.rstrip() for line in text.getvalue().splitlines()) + "\n"


def bar_chart(title, bars):
    """Bars of (label, value), the smallest on top."""
    labels, values = zip(*sorted(bars, key=lambda bar: bar[1], reverse=True))
    figure, axes = pyplot.subplots(figsize=(8, 0.6 + 0.3 * len(bars)))
    drawn = axes.barh(labels, values, height=0.7, color=[
        LIBRARY_COLOUR if is_library(label) else PEER_COLOURS[0] for label in labels])
    axes.bar_label(drawn, [number(value) for value in values], padding=4)
    axes.set_title(title)
    axes.spines["bottom"].set_visible(False)
    axes.tick_params(left=False, bottom=False, labelbottom=False)
    embolden_library(axes.get_yticklabels())
    return svg_of(figure)


def line_chart(title, axis, series):
    """Lines of (label, [(x, value)]) on logarithmic axes, named in the order of their ends."""
    figure, axes = pyplot.subplots(figsize=(8, 4))
    peers, styles = iter(PEER_COLOURS), iter(["-", "--", ":"])
    lines = []
    for label, points in series:
        own = is_library(label)
        lines += axes.loglog(*zip(*points), label=label, marker="o", markersize=4 if own else 3,
                             linewidth=2.5 if own else 1.5, linestyle=next(styles) if own else "-",
                             color=LIBRARY_COLOUR if own else next(peers))
    lines.sort(key=lambda line: line.get_ydata()[-1], reverse=True)
    names = axes.legend(handles=lines, loc="center left", bbox_to_anchor=(1, 0.5), frameon=False)
    embolden_library(names.get_texts())
    axes.set_title(title)
    axes.set_xlabel(axis)
    axes.set_xticks(sorted({x for _, points in series for x, _ in points}), minor=False)
    axes.set_ylim(10 ** math.floor(math.log10(min(axes.dataLim.intervaly))),
                  10 ** math.ceil(math.log10(max(axes.dataLim.intervaly))))
    axes.minorticks_off()
    for scale in (axes.xaxis, axes.yaxis):
        scale.set_major_formatter(lambda value, _: f"{value:,.0f}" if value >= 1 else f"{value:g}")
    axes.grid(axis="y", color="#dddddd")
    return svg_of(figure)


def bars_of(figures, table, column=None):
    rows, _ = figures.parts(table)
    values = [(row, figures.ns(full_name(table, row, column))) for row in rows]
    return [(row, value) for row, value in values if value is not None]


def lines_of(figures, table):
    rows, columns = figures.parts(table)
    series = []
    for row in rows:
        points = [(int(column), figures.ns(full_name(table, row, column))) for column in columns]
        points = [point for point in points if point[1] is not None]
        if points:
            series.append((row, points))
    return series


def charts(figures):
    per = "nanoseconds, less is better"
    yield "floor", bar_chart("Services as multiples of their floor, less is better",
                             [(label, figures.ns(name) / figures.floor(name))
                              for label, name, _ in SERVICES if name in figures.quietest])
    yield "heap", bar_chart(f"10,000 entries of 48 bytes, all freed: an entry, {per}",
                            bars_of(figures, "heap-48"))
    yield "cell", bar_chart(f"A cell of 64 bytes allocated and freed, {per}",
                            bars_of(figures, "cell-churn"))
    yield "hash", line_chart(f"Hash tables: a look-up, {per}", "records in the table",
                             lines_of(figures, "hash-get"))
    yield "pack", line_chart(f"Encoding a package, {per}", "packages in the graph",
                             lines_of(figures, "graph-encode"))
    yield "unpack", line_chart(f"Decoding and traversing a package, {per}", "packages in the graph",
                               lines_of(figures, "graph-decode"))
    yield "text", bar_chart(f"Text of a package of 10,000: write, {per}",
                            bars_of(figures, "text-encode", "10000"))
    yield "text-read", bar_chart(f"Text of a package of 10,000: read and traverse, {per}",
                                 bars_of(figures, "text-decode", "10000"))
    yield "sink", line_chart(f"Shared strings: a new one, {per}", "strings",
                             lines_of(figures, "sink-new"))
    yield "sink-known", line_chart(f"Shared strings: a known one, {per}", "strings",
                                   lines_of(figures, "sink-known"))
    yield "concat", line_chart(f"Concatenation: an append, {per}", "units in an append",
                               lines_of(figures, "concat"))


# The tables of each program.
SECTIONS = {
    "peerbench": {
        "machine": machine, "aims": aims, "floor": floors, "multiples": multiples,
        "graph-size": lambda figures: sizes(figures, "graph-encode"),
        "text-size": lambda figures: sizes(figures, "text-encode"),
        **{table: lambda figures, table=table: comparison(figures, table) for table in TABLES}},
    "workloadbench": {"workloads": workloads, "pack-catalogue": catalogues},
    "checkbench": {"checking": checking, "checking-bytes": checking_bytes,
                   "verification": verification},
}


def fill(document, made):
    """The document with the figures of these sections replaced."""
    wanted = re.findall(r"<!-- figures: ([\w-]+) -->", document)
    known = [name for sections in SECTIONS.values() for name in sections]
    if sorted(wanted) != sorted(known):
        raise SystemExit("performance.py: the document has no place, or more than one, for: " +
                         ", ".join(sorted(set(known) ^ set(wanted)) or ["a figure named twice"]))
    pattern = r"(<!-- figures: ([\w-]+) -->\n).*?(<!-- end -->)"
    return re.sub(pattern, lambda match: f"{match[1]}\n{made[match[2]]}\n{match[3]}"
                  if match[2] in made else match[0], document, flags=re.S)


def main():
    paths = [pathlib.Path(path) for path in sys.argv[2:]]
    if not paths or any(path.stem not in SECTIONS for path in paths):
        raise SystemExit(__doc__)
    document = pathlib.Path(sys.argv[1])
    figures = {path.stem: Figures(path) for path in paths}
    made = {name: make(figures[program]) for program in figures
            for name, make in SECTIONS[program].items()}
    document.write_text(fill(document.read_text(encoding="utf-8"), made), encoding="utf-8")
    if "peerbench" not in figures:
        return
    pictures = document.parent / "pictures"
    pictures.mkdir(exist_ok=True)
    for name, svg in charts(figures["peerbench"]):
        (pictures / f"performance-{name}.svg").write_text(svg, encoding="utf-8")


if __name__ == "__main__":
    main()
