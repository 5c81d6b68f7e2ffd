#!/usr/bin/env python3
"""Runs every test of test programs while a timer interrupts all their threads a thousand times a second.

Usage: under_timer.py TIMER-LIBRARY EXCEPTIONS PROGRAM...

EXCEPTIONS lists the tests that are left out, one a line, with the reason behind a '#'. One that does not exist is an
error. Of the programs that a test starts only the tools are interrupted, too.
"""

import concurrent.futures
import os
import re
import subprocess
import sys

TOOLS = ["crp", "qxctl"]

# The tests' own functions, and the blocking sockets of the clients and servers that they are made of.
TESTS = re.compile(
    r"""^(
        .*_Test::TestBody | .*Test::.* | testing::.* | main$ | \(anonymous\ namespace\)::.*
        | (Sandbox|ToolRun|CtlRun)::.*
        | .*(ScriptedServer|ScriptedDaemon|HttpClient|WebSocketClient|TestServer|LoopDevices|Terminal|RequestReader).*
        | .*boost::asio::detail::(socket_ops|reactive_socket_service).*
    )""", re.VERBOSE)

# Those of the library that report it when a signal interrupts their read or wait.
REPORTING = re.compile(r"CRP::QxCRPLoader::|QxCComposeFileHandler::|QxNContainer::|QxNSupport::ReapWithin")


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


def functions_of(program):
    """Address, size and name of every function."""
    symbols = subprocess.run(["nm", "-C", "-S", "--defined-only", program], check=True, capture_output=True,
                             text=True).stdout
    lines = (line.split(" ", 3) for line in symbols.splitlines())
    return [(int(line[0], 16), int(line[1], 16), line[3]) for line in lines if len(line) == 4 and line[2] in "tTwWuU"]


def addresses(functions, names):
    """Where the functions of these names lie, as "FROM-TO FROM-TO ...", relative to the program."""
    joined = []
    for begin, size, _ in sorted(function for function in functions if names.match(function[2])):
        if joined and begin <= joined[-1][1] + 16:
            joined[-1][1] = max(begin + size, joined[-1][1])
        else:
            joined.append([begin, begin + size])
    return " ".join(f"{begin:x}-{end:x}" for begin, end in joined)


def environment_of(program, library):
    functions = functions_of(program)
    return dict(os.environ, LD_PRELOAD=library, QX_TIMER_TESTS=addresses(functions, TESTS),
                QX_TIMER_REPORTING=addresses(functions, REPORTING),
                QX_TIMER_PROGRAMS=" ".join([os.path.basename(program)] + TOOLS))


def run(program, test, environment):
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
    environments = {program: environment_of(program, library) for program in programs}
    tests = [(program, test) for program in programs for test in tests_of(program)]
    unknown = exceptions - {test for _, test in tests}
    tests = [(program, test) for program, test in tests if test not in exceptions]
    for test in sorted(unknown):
        print(f"{exceptions_file}: there is no test {test}")
    failed = []
    # Most of a test's time goes into waiting.
    with concurrent.futures.ThreadPoolExecutor(max_workers=2 * os.cpu_count()) as workers:
        results = workers.map(lambda item: run(*item, environments[item[0]]), tests)
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
