#!/usr/bin/env python3
"""Turns the results of Google Benchmark into one table of ratios.

Usage: bench_table.py FILTER TARGETS RESULT...
       bench_table.py --choose FILTER

RESULT files are Google Benchmark's JSON with repetitions; the median counts. Benchmarks "NAME/ours..." and
"NAME/bare..." with the same rest of the name make one row. TARGETS maps NAME, or NAME and the rest, to the greatest
ratio allowed ("max_ratio"), the greatest time of ours ("max_ns"), or how much longer than bare ours may take
("max_extra_ns"). A benchmark with a counter "bytes" or "count" is about that instead of time ("max_bytes",
"max_count"). Only rows whose names match FILTER are told. Exit status 1 when a target is missed or a benchmark failed;
with the FILTER "." a target without a row is missed too. --choose reads names of benchmarks, a line each, and writes
those whose row's name matches.
"""

import argparse
import json
import pathlib
import re
import sys

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def short_name(name: str) -> str:
    """Returns the name of a benchmark without what the framework adds."""
    return re.sub(r"/(iterations:\d+|min_time:[\d.]+|manual_time|real_time)(?=/|$)", "", name)


def row_name(name: str) -> str:
    return re.sub("/(ours|bare)(?=/|$)", "", short_name(name), count=1)


def choose(wanted: re.Pattern) -> int:
    for name in sys.stdin.read().split():
        if wanted.search(row_name(name)):
            print(name)
    return 0


def measured(run: dict) -> tuple[str, float]:
    """Returns the unit and the value of what a run is about."""
    for unit in ("bytes", "count"):
        if unit in run:
            return unit, run[unit]
    return "ns", run["real_time"] * NANOSECONDS[run["time_unit"]]


def place(run: dict) -> tuple[int, int]:
    """Where a run stands among those of its program, which take turns by chance."""
    return run.get("family_index", 0), run.get("per_family_instance_index", 0)


def failures(results: list[dict]) -> set[str]:
    """The rows of which ours failed; one whose bare side did has nothing to be compared with."""
    runs = (run for result in results for run in result["benchmarks"])
    return {row_name(run["run_name"]) for run in runs if run.get("error_occurred") and "/ours" in run["run_name"]}


def medians(results: list[dict]) -> dict[str, tuple[str, float]]:
    """Unit and value of every benchmark, by its name without what the framework adds."""
    values: dict[str, list[tuple[str, float]]] = {}
    for result in results:
        for run in sorted(result["benchmarks"], key=place):
            if run.get("run_type") == "iteration" and not run.get("error_occurred"):
                values.setdefault(short_name(run["run_name"]), []).append(measured(run))
    return {name: sorted(runs)[len(runs) // 2] for name, runs in values.items()}


def readable(value: float, unit: str = "ns") -> str:
    steps = {
        "ns": (("s", 1e9), ("ms", 1e6), ("us", 1e3), ("ns", 1)),
        "bytes": (("MiB", 2**20), ("KiB", 2**10), ("B", 1)),
        "count": (("", 1),),
    }[unit]
    for name, size in steps:
        if value >= size or size == 1:
            return f"{value / size:.3g} {name}".rstrip()
    return ""


def judge(target: dict, ours: float, bare: float | None) -> tuple[str, bool]:
    """Returns what is wanted, in words, and whether it is so."""
    wanted = []
    if "max_ratio" in target:
        wanted.append((f"<= {target['max_ratio']:g}", bare and ours / bare <= target["max_ratio"]))
    for unit in ("ns", "bytes", "count"):
        if f"max_{unit}" in target:
            most = target[f"max_{unit}"]
            wanted.append((f"<= {readable(most, unit)}", ours <= most))
    if "max_extra_ns" in target:
        wanted.append((f"<= bare + {readable(target['max_extra_ns'])}", bare and ours - bare <= target["max_extra_ns"]))
    return ", ".join(text for text, _ in wanted), all(holds for _, holds in wanted)


def key_of(row: str, targets: dict) -> str:
    """The name of the target that is meant for a row."""
    return row if row in targets else row.split("/")[0]


def table(wanted: re.Pattern, targets: dict, results: list[dict]) -> int:
    times = medians(results)
    failed = set(filter(wanted.search, failures(results)))
    missed = 0
    without_row = set(targets)
    print(f"{'what':<44} {'ours':>10} {'bare':>10} {'ratio':>7}  target")
    for name, (unit, ours) in times.items():
        row = row_name(name)
        if not re.search("/ours(?=/|$)", name) or row in failed or not wanted.search(row):
            continue
        _, bare = times.get(re.sub("/ours(?=/|$)", "/bare", name, count=1), (unit, None))
        key = key_of(row, targets)
        without_row.discard(key)
        wish, holds = judge(targets.get(key, {}), ours, bare)
        missed += not holds
        print(f"{row:<44} {readable(ours, unit):>10} {readable(bare, unit) if bare else '':>10} "
              f"{f'{ours / bare:.2f}' if bare else '':>7}  {wish}{'' if holds else '  MISSED'}".rstrip())
    for row in sorted(failed):
        without_row.discard(key_of(row, targets))
        print(f"{row:<44} failed  MISSED")
    if wanted.pattern != ".":
        without_row.clear()
    for key in sorted(without_row):
        print(f"{key:<44} was not measured  MISSED")
    return 1 if missed or failed or without_row else 0


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--choose", action="store_true")
    parser.add_argument("filter")
    parser.add_argument("files", nargs="*", type=pathlib.Path)
    arguments = parser.parse_args()
    try:
        wanted = re.compile(arguments.filter)
    except re.error as error:
        parser.exit(2, f"'{arguments.filter}' is no regular expression: {error}\n")
    if arguments.choose:
        return choose(wanted)
    targets, *results = (json.loads(file.read_text()) for file in arguments.files)
    return table(wanted, targets, results)


if __name__ == "__main__":
    sys.exit(main())
