#!/usr/bin/env python3
"""Turns the results of Google Benchmark into one table of ratios.

Usage: bench_table.py TARGETS RESULT...

RESULT files are Google Benchmark's JSON with repetitions; the median counts. Benchmarks "NAME/ours..." and
"NAME/bare..." with the same rest of the name make one row. TARGETS maps NAME, or NAME and the rest, to the greatest
ratio allowed ("max_ratio"), the greatest time of ours ("max_ns"), or how much longer than bare ours may take
("max_extra_ns"). Exit status 1 when a target is missed. When no filter left benchmarks out, a target without a row is
missed too.
"""

import json
import pathlib
import re
import sys

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def read_results(files: list[str]) -> list[dict]:
    """Programs of which a filter left nothing write empty files."""
    texts = (pathlib.Path(file).read_text() for file in files)
    return [json.loads(text) for text in texts if text]


def is_filtered(results: list[dict]) -> bool:
    return any(result["context"].get("filter", ".") != "." for result in results)


def medians(results: list[dict]) -> dict[str, float]:
    times: dict[str, list[float]] = {}
    for result in results:
        for run in result["benchmarks"]:
            if run.get("run_type") == "iteration" and not run.get("error_occurred"):
                times.setdefault(run["run_name"], []).append(run["real_time"] * NANOSECONDS[run["time_unit"]])
    return {name: sorted(values)[len(values) // 2] for name, values in times.items()}


def readable(ns: float) -> str:
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= size:
            return f"{ns / size:.3g} {unit}"
    return f"{ns:.3g} ns"


def judge(target: dict, ours: float, bare: float | None) -> tuple[str, bool]:
    """Returns what is wanted, in words, and whether it is so."""
    wanted = []
    if "max_ratio" in target:
        wanted.append((f"<= {target['max_ratio']:g}", bare and ours / bare <= target["max_ratio"]))
    if "max_ns" in target:
        wanted.append((f"<= {readable(target['max_ns'])}", ours <= target["max_ns"]))
    if "max_extra_ns" in target:
        wanted.append((f"<= bare + {readable(target['max_extra_ns'])}", bare and ours - bare <= target["max_extra_ns"]))
    return ", ".join(text for text, _ in wanted), all(holds for _, holds in wanted)


def main() -> int:
    targets = json.loads(pathlib.Path(sys.argv[1]).read_text())
    results = read_results(sys.argv[2:])
    times = medians(results)
    missed = 0
    without_row = set(targets)
    print(f"{'what':<44} {'ours':>10} {'bare':>10} {'ratio':>7}  target")
    for name, ours in times.items():
        if not re.search("/ours(?=/|$)", name):
            continue
        row = re.sub("/ours(?=/|$)", "", name, count=1)
        bare = times.get(re.sub("/ours(?=/|$)", "/bare", name, count=1))
        key = row if row in targets else row.split("/")[0]
        without_row.discard(key)
        wanted, holds = judge(targets.get(key, {}), ours, bare)
        missed += not holds
        print(f"{row:<44} {readable(ours):>10} {readable(bare) if bare else '':>10} "
              f"{f'{ours / bare:.2f}' if bare else '':>7}  {wanted}{'' if holds else '  MISSED'}".rstrip())
    if not is_filtered(results):
        missed += len(without_row)
        for key in sorted(without_row):
            print(f"{key:<44} was not measured  MISSED")
    return 1 if missed or not times else 0


if __name__ == "__main__":
    sys.exit(main())
