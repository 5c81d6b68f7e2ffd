#!/usr/bin/env python3
"""Holds promises.py to what it says of a table: which tests are missing, have not run or were skipped.

Usage: promises_check.py
"""

import pathlib
import subprocess
import sys
import tempfile

CHECK = pathlib.Path(__file__).with_name("promises.py")
TESTS = ["A.Runs", "A.IsSkipped", "A.IsSkippedOnce", "A.IsLeftOut", "Each/A.Parameter/1", "Each/A.Parameter/2"]
REPORTS = {
    "here.xml": '<testcase name="A.Runs" status="run"/>'
    '<testcase name="A.IsSkipped" status="notrun"><skipped/><system-out>\n'
    "a.cpp:1: Skipped\ncannot run here: no horse\n[  SKIPPED ]\n</system-out></testcase>"
    '<testcase name="A.IsSkippedOnce" status="notrun"><skipped/></testcase>'
    '<testcase name="Each/A.Parameter/1" status="run"/>',
    "there.xml": '<testcase name="A.IsSkipped" status="notrun"><skipped/>'
    "<system-out>cannot run here: no horse</system-out></testcase>"
    '<testcase name="A.IsSkippedOnce" status="run"/>',
}
RAN = ["--ran", "here.xml", "--ran", "there.xml"]

# The test that a row names, what is given, the status and what is said.
CASES = [
    ("`A.Runs`", [], 0, "1 promises, held by 1 of 6 tests"),
    ("`A.Runs`", RAN, 0, "1 promises, held by 1 of 6 tests"),
    ("none", [], 1, "table.md:5: nothing holds this: what is promised"),
    ("`A.IsNot`", [], 1, "table.md:5: there is no test A.IsNot"),
    ("`A.Runs`, `A.IsNot`", RAN, 1, "table.md:5: there is no test A.IsNot"),
    ("`A.IsLeftOut`", [], 0, "1 promises, held by 1 of 6 tests"),
    ("`A.IsLeftOut`", RAN, 1, "table.md:5: A.IsLeftOut did not run"),
    ("`Each/A.Parameter`", [], 0, "1 promises, held by 2 of 6 tests"),
    ("`Each/A.Parameter`", RAN, 1, "table.md:5: Each/A.Parameter did not run, or not with all"),
    ("`A.IsSkipped`", RAN, 1, "table.md:5: A.IsSkipped was skipped in every run: no horse\n"),
    ("`A.IsSkipped`", [*RAN, "--allow-skipped"], 0, "not shown here: A.IsSkipped: no horse\n"),
    ("`A.IsSkippedOnce`", RAN, 0, "1 promises, held by 1 of 6 tests"),
    ("`A.IsSkippedOnce`", RAN[:2], 1, "table.md:5: A.IsSkippedOnce was skipped in every run: it does not say why\n"),
    ("`A.IsLeftOut`", [*RAN, "--allow-skipped"], 1, "table.md:5: A.IsLeftOut did not run"),
]


def said_of(directory: pathlib.Path, table: str, options: list[str]) -> tuple[int, str]:
    pathlib.Path(directory, "table.md").write_text(table)
    run = subprocess.run(
        [sys.executable, CHECK, "build", "table.md", *options], cwd=directory, capture_output=True, text=True
    )
    return run.returncode, run.stdout + run.stderr


def main() -> int:
    wrong = []
    with tempfile.TemporaryDirectory() as made:
        directory = pathlib.Path(made)
        pathlib.Path(directory, "build").mkdir()
        listing = "".join(f"add_test([=[{name}]=] true)\n" for name in TESTS)
        pathlib.Path(directory, "build", "CTestTestfile.cmake").write_text(listing)
        for name, cases in REPORTS.items():
            pathlib.Path(directory, name).write_text(f"<testsuite>{cases}</testsuite>")
        for tests, options, status, text in CASES:
            table = f"# Promises\n\n| Promise | Test |\n|---|---|\n| what is promised | {tests} |\n"
            got = said_of(directory, table, options)
            if got[0] != status or text not in got[1]:
                wrong.append(f"{tests} {options}: expected {status} and '{text}', got {got}")
        got = said_of(directory, "# Nothing\n", [])
        if got[0] != 1:
            wrong.append(f"a table without promises: expected 1, got {got}")
    print("\n".join(wrong))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
