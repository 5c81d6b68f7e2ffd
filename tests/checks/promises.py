#!/usr/bin/env python3
"""Holds tables of promises to their word: every promise names a test that exists and, after a run, that has run.

Usage: promises.py BUILD TABLE... [--ran REPORT]... [--allow-skipped]
BUILD   the built tree, whose tests CTest lists
TABLE   a Markdown file; the last column of its tables names tests, each in backticks
REPORT  what ctest --output-junit wrote of a run of all tests, or of some of them elsewhere; a test counts that ran in one

A test that was skipped in every report has not run. With --allow-skipped it is named, which is for a run of a part of
what there is to run.
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as xml

CELLS = re.compile(r"(?<!\\)\|")
NAME = re.compile(r"`([^`]+)`")
REASON = re.compile(r"^cannot run here: (.*)$", re.MULTILINE)


def promises(table: pathlib.Path):
    """Gives (line number, promise, names of tests) of every row."""
    lines = table.read_text().splitlines()
    for number, line in enumerate(lines, 1):
        if not line.startswith("|") or set(line) <= set("|-: "):
            continue
        if number < len(lines) and set(lines[number]) <= set("|-: ") and lines[number]:
            continue  # the heading
        cells = CELLS.split(line)[1:-1]
        yield number, cells[0].strip(), NAME.findall(cells[-1])


def known_tests(build: str) -> set[str]:
    # Listing, too, begins the log of the directory anew, which may be that of the run that this is a part of; so the
    # listing is of a directory of its own that has the build directory below it.
    with tempfile.TemporaryDirectory() as listed:
        pathlib.Path(listed, "CTestTestfile.cmake").write_text(f'subdirs("{pathlib.Path(build).resolve()}")\n')
        listing = subprocess.run(
            ["ctest", "--test-dir", listed, "--show-only=json-v1"], check=True, capture_output=True, text=True
        ).stdout
    return {test["name"] for test in json.loads(listing)["tests"]}


def outcomes(reports: list[str]) -> tuple[set[str], dict[str, str]]:
    """Gives the tests that ran, and those that were skipped in every run with the reason they gave."""
    ran, skipped = set(), {}
    for report in reports:
        for case in xml.parse(report).iter("testcase"):
            if case.find("skipped") is not None:
                said = REASON.search(case.findtext("system-out", ""))
                skipped[case.get("name")] = said[1] if said else "it does not say why"
            elif case.get("status") == "run":
                ran.add(case.get("name"))
    return ran, {name: reason for name, reason in skipped.items() if name not in ran}


def main() -> int:
    arguments = argparse.ArgumentParser()
    arguments.add_argument("build")
    arguments.add_argument("table", type=pathlib.Path, nargs="+")
    arguments.add_argument("--ran", action="append", default=[])
    arguments.add_argument("--allow-skipped", action="store_true")
    given = arguments.parse_args()
    known = known_tests(given.build)
    ran, skipped = outcomes(given.ran)
    problems = []
    named = set()
    rows = [(table, *row) for table in given.table for row in promises(table)]
    for table, number, promise, tests in rows:
        if not tests:
            problems.append(f"{table.name}:{number}: nothing holds this: {promise[:80]}")
        for test in tests:
            # A test with parameters counts with all of them.
            instances = {name for name in known if name == test or name.startswith(test + "/")}
            named |= instances
            if not instances:
                problems.append(f"{table.name}:{number}: there is no test {test}")
            elif given.ran and not instances <= ran | set(skipped):
                problems.append(f"{table.name}:{number}: {test} did not run, or not with all its parameters")
            elif not given.allow_skipped:
                problems += (
                    f"{table.name}:{number}: {name} was skipped in every run: {skipped[name]}"
                    for name in sorted(instances & set(skipped))
                )
    print("\n".join(problems))
    if given.allow_skipped:
        for test in sorted(named & set(skipped)):
            print(f"not shown here: {test}: {skipped[test]}")
    print(f"{len(rows)} promises, held by {len(named)} of {len(known)} tests")
    without = {table.name for table in given.table} - {table.name for table, *_ in rows}
    return 1 if problems or without else 0


if __name__ == "__main__":
    sys.exit(main())
