#!/usr/bin/env python3
"""Turns the results of Google Benchmark into one table of ratios.

Usage: bench_table.py TARGETS RESULT...

RESULT files are Google Benchmark's JSON with repetitions; the median counts. Benchmarks "NAME/ours..." and
"NAME/bare..." with the same rest of the name make one row. TARGETS maps NAME, or NAME and the rest, to the greatest
ratio allowed ("max_ratio") or the greatest time of ours ("max_ns"). Exit status 1 when a target is missed.
"""

import json
import pathlib
import re
import sys

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def medians(files: list[str]) -> dict[str, float]:
    times: dict[str, list[float]] = {}
    for file in files:
        for run in json.loads(pathlib.Path(file).read_text())["benchmarks"]:
            if run.get("run_type") == "iteration" and not run.get("error_occurred"):
                times.setdefault(run["run_name"], []).append(run["real_time"] * NANOSECONDS[run["time_unit"]])
    return {name: sorted(values)[len(values) // 2] for name, values in times.items()}


def readable(ns: float) -> str:
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def main() -> int:
    targets = json.loads(pathlib.Path(sys.argv[1]).read_text())
    times = medians(sys.argv[2:])
    missed = 0
    print(f"{'what':<44} {'ours':>10} {'bare':>10} {'ratio':>7} {'target':>9}")
    for name, ours in times.items():
        if not re.search("/ours(?=/|$)", name):
            continue
        row = re.sub("/ours(?=/|$)", "", name, count=1)
        bare = times.get(re.sub("/ours(?=/|$)", "/bare", name, count=1))
        target = targets.get(row) or targets.get(row.split("/")[0]) or {}
        ratio = ours / bare if bare else None
        verdict, wanted = "", ""
        if "max_ratio" in target:
            wanted = f"<= {target['max_ratio']:g}"
            verdict = "  MISSED" if ratio is None or ratio > target["max_ratio"] else ""
        if "max_ns" in target:
            wanted = f"<= {readable(target['max_ns'])}"
            verdict = "  MISSED" if ours > target["max_ns"] else verdict
        missed += bool(verdict)
        print(f"{row:<44} {readable(ours):>10} {readable(bare) if bare else '':>10} "
              f"{f'{ratio:.2f}' if ratio else '':>7} {wanted:>9}{verdict}")
    return 1 if missed or not times else 0


if __name__ == "__main__":
    sys.exit(main())
