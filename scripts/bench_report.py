#!/usr/bin/env python3
"""Makes a table and a plot of what the contest of bench/ has printed.

    scripts/bench_report.py RESULTS FOLDER [--write DOCUMENT COMMAND]

Prints the table. FOLDER is where the contest ran. With --write the table also takes
the place of the part of DOCUMENT between the two marker lines, together with the
machine and COMMAND, and the plot is put beside it under the same name with .svg.
"""

import collections
import html
import math
import os
import pathlib
import re
import statistics
import subprocess
import sys

BEGIN, END = "<!-- figures: begin -->", "<!-- figures: end -->"
BASE, OURS, CALLS = "floor", "store", "calls"

# question: its name for readers, the target for store / floor
TIMES = {
    "put": ("put of a new record", 0.90),
    "overwrite": ("overwrite", 0.90),
    "remove": ("remove", 1.00),
    "read": ("read, warm", 1.20),
    "list of 1,000": ("list of 1,000", 0.25),
    "open": ("open", 2.00),
    "put among many": ("put among many", None),
    "read among many": ("read among many", None),
    "list of many": ("list of many", 0.25),
    "open with many": ("open with many", 2.00),
    "recrypt": ("change of password", 0.45),
}
OPENS = ["open", "open with many"]  # asks nothing of the contender that has calls alone
# question: its name for readers, the most milliseconds
TOOL = {
    "start of the tool": ("`fstore --version`, ms", 10),
    "list by the tool": ("`fstore ls` of few, ms", 25),
    "list of many by the tool": ("`fstore ls` of many, ms", 1500),
}
# What the C library asks of two readers: question: its name for readers
SIDE_BY_SIDE = {
    "two threads on one database": "reads through the C library of two threads / of one",
    "two threads on two databases": "the same, each on a database of its own",
    "two processes": "reads through the C library of two processes / of one",
}
FRAMEWORK = ["call through a proxy", "copy of a handle", "new record"]
PLOTTED = ["put", "overwrite", "remove", "read", "read among many"]
COLOURS = ["#8a8f98", "#1f6feb", "#2da44e", "#bf8700", "#cf222e", "#8250df"]


def load(path):
    """question: {contender: values of its rounds}"""
    results = collections.defaultdict(dict)
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        question, contender, _, value = line.split("\t")
        results[question].setdefault(contender, []).append(float(value))
    return results


def ratios(by, contender, base=BASE):
    """Median and quartiles of the ratios to the floor, or another, in the same round."""
    each = sorted(a / b for a, b in zip(by[contender], by[base]))
    return statistics.median(each), each[len(each) // 4], each[(3 * len(each)) // 4]


def number(value):
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def table_of_times(results):
    contenders = []
    for question in TIMES:
        contenders += [name for name in results.get(question, {}) if name not in contenders]
    others = [name for name in contenders if name not in (BASE, OURS, CALLS)]
    rows = [["median of one operation, us", BASE, OURS, "store / floor", "quartiles", "target",
             "its calls alone / floor"] + others]
    for question, (name, target) in TIMES.items():
        by = results.get(question)
        if not by:
            continue
        middle, low, high = ratios(by, OURS)
        row = [name, number(statistics.median(by[BASE])), number(statistics.median(by[OURS])),
               f"{middle:.2f}", f"{low:.2f} to {high:.2f}", f"{target:.2f}" if target else "",
               f"{ratios(by, CALLS)[0]:.2f}" if CALLS in by and question not in OPENS else ""]
        rows.append(row + [number(statistics.median(by[o])) if o in by else "" for o in others])
    return rows


def table_of_the_rest(results):
    rows = [["figure", "value", "target"]]

    def compare(name, value, target):
        rows.append([name, value, target])

    def median(question, contender):
        return statistics.median(results[question][contender])

    for question in ["put", "read"]:
        if question + " among many" in results:
            growth = median(question + " among many", OURS) / median(question, OURS)
            floor = median(question + " among many", BASE) / median(question, BASE)
            compare(f"{question} among many / among few",
                    f"{growth:.2f} (floor: {floor:.2f})", "1.15")
    if "two readers to one" in results:
        compare("reads of two threads / of one", f"{median('two readers to one', OURS):.2f} "
                f"(floor: {median('two readers to one', BASE):.2f})", "1.80")
    if "bytes of a list per record" in results:
        compare("memory of a list, bytes per record",
                number(median("bytes of a list per record", OURS)), "700")
    for question, (name, most) in TOOL.items():
        if question in results:
            compare(name, number(median(question, OURS)), f"{most:,}")
    if "import by the tool" in results:
        each = median("import by the tool", OURS)
        compare("`fstore import` of many certificates, us each / put by a program",
                f"{number(each)} / {number(median('put', OURS))} = "
                f"{each / median('put', OURS):.2f}", "1.30")
    rows += rows_of_the_library(results)
    for question in FRAMEWORK:
        if question in results:
            compare(f"{question}, ns", f"{number(median(question, OURS))} (without the framework: "
                    f"{number(median(question, 'without'))})", "")
    return rows


def rows_of_the_library(results):
    """Of the C library, beside the proxies and its system calls alone."""
    rows = []
    for question, name, target in [
            ("read by the library", "read through the C library / the proxies, locked", 1.15),
            ("open by the library", "open and unlock with the key / the module's open", 2.00)]:
        if question in results:
            by = results[question]
            middle, low, high = ratios(by, "library", "proxies")
            rows.append([name, f"{number(statistics.median(by['library']))} us / "
                         f"{number(statistics.median(by['proxies']))} us = {middle:.2f} "
                         f"({low:.2f} to {high:.2f})", f"{target:.2f}"])
    for question, name in SIDE_BY_SIDE.items():
        if question in results:
            gain, calls = (statistics.median(results[question][who]) for who in ("library", CALLS))
            target = 1.80 if question == "two processes" else 0.9 * calls
            rows.append([name, f"{gain:.2f} (its calls alone: {calls:.2f})", f"{target:.2f}"])
    if "memory of an open database" in results:
        value = statistics.median(results["memory of an open database"]["library"])
        rows.append(["memory of each of 1,000 open databases, KiB", number(value), "64"])
    return rows


def markdown(rows):
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    lines = ["| " + " | ".join(c.ljust(w) for c, w in zip(row, widths)) + " |" for row in rows]
    rule = ["-" * w + ("" if i == 0 else ":") for i, w in enumerate(widths)]
    lines.insert(1, "|" + "|".join(f" {r} " if i == 0 else f" {r}" for i, r in enumerate(rule))
                 + "|")
    return "\n".join(lines)


def first_match(pattern, path):
    found = re.search(pattern, pathlib.Path(path).read_text(encoding="utf-8"))
    return found[1].strip() if found else "unknown"


def machine(folder):
    memory = int(first_match(r"MemTotal:\s*(\d+)", "/proc/meminfo")) / 2**20
    mount = subprocess.run(["findmnt", "-no", "FSTYPE,OPTIONS,SOURCE", "-T", folder], check=False,
                           capture_output=True, text=True).stdout.split()
    kind, options, device = (mount + ["unknown", "", ""])[:3]
    kept = [o for o in options.split(",") if "=" not in o]
    task = pathlib.Path("/sys/fs/ext4", pathlib.Path(device).name, "journal_task")
    if kind == "ext4" and task.exists() and not task.read_text(encoding="ascii").strip().isdigit():
        kind = "ext4 without a journal"
    model = first_match(r"model name\s*:(.*)", "/proc/cpuinfo")
    return (f"{os.cpu_count()} CPUs ({model}), "
            f"{memory:.0f} GiB of memory, {kind} ({', '.join(kept)}), "
            f"Linux {'.'.join(os.uname().release.split('.')[:2])}; "
            f"load at the end {os.getloadavg()[0]:.1f}")


def plot(results):
    """Bars of each contender's ratio to the floor, on a logarithmic scale."""
    left, width, bar, gap, top = 150, 560, 13, 16, 46
    low, high = 1 / 16, 8
    def x(ratio):
        share = math.log(min(max(ratio, low), high) / low) / math.log(high / low)
        return left + width * share

    names = list(dict.fromkeys(n for q in PLOTTED for n in results.get(q, {})
                              if n not in (BASE, CALLS)))
    colours = dict(zip(names, COLOURS[1:]))
    body, y = [], top
    for question in PLOTTED:
        if question not in results:
            continue
        start = y
        for name in names:
            if name not in results[question]:
                continue
            ratio = ratios(results[question], name)[0]
            begin, end = sorted([x(1), x(ratio)])
            body.append(f'<rect x="{begin:.1f}" y="{y}" width="{max(end - begin, 1):.1f}" '
                        f'height="{bar - 2}" fill="{colours[name]}"/>')
            label = end + 4 if ratio >= 1 else begin - 4
            anchor = "start" if ratio >= 1 else "end"
            body.append(f'<text x="{label:.1f}" y="{y + 9}" text-anchor="{anchor}" '
                        f'font-size="9">{ratio:.2f}</text>')
            y += bar
        body.append(f'<text x="{left - 34}" y="{(start + y) / 2 + 3:.1f}" text-anchor="end">'
                    f'{html.escape(TIMES[question][0])}</text>')
        y += gap
    lines = [f'<line x1="{x(t):.1f}" y1="{top - 6}" x2="{x(t):.1f}" y2="{y - gap}" '
             f'stroke="{"#333" if t == 1 else "#ddd"}"/><text x="{x(t):.1f}" y="{y + 2}" '
             f'text-anchor="middle" font-size="9">{t:g}</text>'
             for t in [1 / 16, 1 / 8, 1 / 4, 1 / 2, 1, 2, 4, 8]]
    legend, at = [], left - 120
    for name in names:
        legend.append(f'<rect x="{at}" y="12" width="10" height="10" fill="{colours[name]}"/>'
                      f'<text x="{at + 14}" y="21">{html.escape(name)}</text>')
        at += 30 + 7 * len(name)
    caption = "time of one operation, floor = 1; shorter to the left is faster"
    return "\n".join(
        [f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 60}" '
         f'height="{y + 30}" font-family="sans-serif" font-size="11">',
         '<rect width="100%" height="100%" fill="white"/>', *legend, *lines, *body,
         f'<text x="{left + width / 2}" y="{y + 20}" text-anchor="middle">{caption}</text>',
         "</svg>", ""])


def write(document, command, folder, tables, results):
    document = pathlib.Path(document)
    text = document.read_text(encoding="utf-8")
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    figures = (f"{BEGIN}\n`{command}` on {machine(folder)}.\n\n{tables}\n\n"
               f"![ratios to the floor]({document.stem}.svg)\n{END}")
    document.write_text(before + figures + after, encoding="utf-8")
    document.with_suffix(".svg").write_text(plot(results), encoding="utf-8")


def main():
    if len(sys.argv) not in (3, 6) or (len(sys.argv) == 6 and sys.argv[3] != "--write"):
        print(__doc__, file=sys.stderr)
        return 2
    results = load(sys.argv[1])
    tables = markdown(table_of_times(results)) + "\n\n" + markdown(table_of_the_rest(results))
    print(tables)
    if len(sys.argv) == 6:
        write(sys.argv[4], sys.argv[5], sys.argv[2], tables, results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
