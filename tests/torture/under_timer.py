#!/usr/bin/env python3
"""Runs every test of test programs while a timer interrupts all their threads a thousand times a second.

Usage: under_timer.py TIMER-LIBRARY EXCEPTIONS PROGRAM...

EXCEPTIONS lists the tests that are left out, one a line, with the reason behind a '#'. One that does not exist is an
error.
"""

import concurrent.futures
import os
import subprocess
import sys


def tests_of(program):
    names = []
    suite = ""
    listing = subprocess.run([program, "--gtest_list_tests"], check=True, capture_output=True, text=True).stdout
    for line in listing.splitlines():
        name = line.split("#")[0].strip()
        if not line.startswith(" "):
            suite = name
        else:
            names.append(suite + name)
    return names


def run(program, test, library):
    environment = dict(os.environ, LD_PRELOAD=library)
    try:
        ended = subprocess.run([program, "--gtest_filter=" + test], env=environment, timeout=120, text=True,
                               errors="replace", stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT)
        return ended.returncode, ended.stdout
    except subprocess.TimeoutExpired as late:
        return 124, (late.stdout or b"").decode(errors="replace") + "\nno end within 120 seconds\n"


def main():
    library, exceptions_file, programs = sys.argv[1], sys.argv[2], sys.argv[3:]
    with open(exceptions_file, encoding="utf-8") as lines:
        exceptions = {line.split("#")[0].strip() for line in lines} - {""}
    tests = [(program, test) for program in programs for test in tests_of(program)]
    unknown = exceptions - {test for _, test in tests}
    tests = [(program, test) for program, test in tests if test not in exceptions]
    for test in sorted(unknown):
        print(f"{exceptions_file}: there is no test {test}")
    failed = []
    # Most of a test's time goes into waiting.
    with concurrent.futures.ThreadPoolExecutor(max_workers=2 * os.cpu_count()) as workers:
        results = workers.map(lambda item: run(*item, library), tests)
        for number, ((program, test), (code, output)) in enumerate(zip(tests, results), 1):
            if code != 0:
                failed.append(test)
                print(f"{program} {test} ended with {code}:\n{output}", flush=True)
            if number % 50 == 0 or number == len(tests):
                print(f"{number} of {len(tests)} tests, {len(failed)} failed", flush=True)
    for test in failed:
        print("failed under the timer: " + test)
    sys.exit(1 if failed or unknown or not tests else 0)


if __name__ == "__main__":
    main()
