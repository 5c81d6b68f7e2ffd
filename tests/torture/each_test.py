#!/usr/bin/env python3
"""Runs every test of test programs, each in a process of its own, under a condition that all of them must bear.

Usage: each_test.py [--preload LIBRARY] [--under COMMAND] [--timeout SECONDS] --except FILE PROGRAM...

FILE lists the tests that are left out, one a line, with the reason behind a '#'. One that does not exist is an error.
"""

import argparse
import concurrent.futures
import os
import shlex
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


def run(program, test, given):
    environment = dict(os.environ)
    if given.preload:
        environment["LD_PRELOAD"] = given.preload
    try:
        ended = subprocess.run([*shlex.split(given.under), program, "--gtest_filter=" + test], env=environment,
                               timeout=given.timeout, text=True, errors="replace", stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return ended.returncode, ended.stdout
    except subprocess.TimeoutExpired as late:
        return 124, (late.stdout or b"").decode(errors="replace") + f"\nno end within {given.timeout} seconds\n"


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--preload", default="")
    parser.add_argument("--under", default="")
    parser.add_argument("--timeout", type=int, default=120)
    parser.add_argument("--except", dest="exceptions", required=True)
    parser.add_argument("program", nargs="+")
    return parser.parse_args()


def main():
    given = arguments()
    with open(given.exceptions, encoding="utf-8") as lines:
        exceptions = {line.split("#")[0].strip() for line in lines} - {""}
    tests = [(program, test) for program in given.program for test in tests_of(program)]
    unknown = exceptions - {test for _, test in tests}
    tests = [(program, test) for program, test in tests if test not in exceptions]
    for test in sorted(unknown):
        print(f"{given.exceptions}: there is no test {test}")
    failed = []
    # Most of a test's time goes into waiting.
    with concurrent.futures.ThreadPoolExecutor(max_workers=2 * os.cpu_count()) as workers:
        results = workers.map(lambda item: run(*item, given), tests)
        for number, ((program, test), (code, output)) in enumerate(zip(tests, results), 1):
            if code != 0:
                failed.append(test)
                print(f"{program} {test} ended with {code}:\n{output}", flush=True)
            if number % 50 == 0 or number == len(tests):
                print(f"{number} of {len(tests)} tests, {len(failed)} failed", flush=True)
    for test in failed:
        print("failed: " + test)
    sys.exit(1 if failed or unknown or not tests else 0)


if __name__ == "__main__":
    main()
