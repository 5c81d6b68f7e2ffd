#!/usr/bin/env python3
"""Runs every test of test programs while a timer interrupts all their threads a thousand times a second.

Usage: under_timer.py TIMER-LIBRARY EXCEPTIONS PROGRAM...

EXCEPTIONS lists the tests that are left out, one a line, with the reason behind a '#'. One that does not exist is an
error. Of the programs that a test starts only the tools are interrupted, too.
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

TOOLS = ["crp", "qxctl"]

# The tests' own functions, and the blocking sockets of the clients and servers that they are made of; functions without
# a name for others only when they stand in a file of the tests.
TESTS = re.compile(
    r"""^(
        .*_Test::TestBody | .*Test::.* | testing::.* | main$
        | (Sandbox|ToolRun|CtlRun)::.*
        | .*(ScriptedServer|ScriptedDaemon|HttpClient|WebSocketClient|TestServer|LoopDevices|Terminal|RequestReader).*
        | .*boost::asio::detail::(socket_ops|reactive_socket_service).*
    )""", re.VERBOSE)

UNNAMED = re.compile(r"\(anonymous namespace\)::")
TESTS_FOLDER = pathlib.Path(__file__).resolve().parent.parent
FILES_OF_TESTS = {file.name for file in TESTS_FOLDER.rglob("*.cpp")} - {"main.cpp"}

# The four places of the library where an interrupted read or wait is an outcome that is reported: output of compose, its
# end, the end of a plugin's command, the end of "podman start --all" or "stop --all".
REPORTING = re.compile(
    r"""^(
        \(anonymous\ namespace\)::OutputPipe::Drain\( | QxCComposeFileHandler::_executeShellCommand\(
        | CRP::QxCRPLoader::execInitCommand\( | QxNContainer::\(anonymous\ namespace\)::RunPodman\(
    )""", re.VERBOSE)


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
    """Address, size, name and, of those that are local to one, the source file of every function."""
    symbols = subprocess.run(["readelf", "-sWC", program], check=True, capture_output=True, text=True).stdout
    file = ""
    for line in symbols.splitlines():
        number, *fields = line.split(maxsplit=7) or [""]
        if not number.endswith(":") or len(fields) != 7:
            continue
        address, size, kind, binding, _, section, name = fields
        if kind == "FILE":
            file = name
        elif kind == "FUNC" and section != "UND":
            yield int(address, 16), int(size, 0), name, file if binding == "LOCAL" else ""


def is_of_tests(function):
    _, _, name, file = function
    return TESTS.match(name) or UNNAMED.match(name) and file in FILES_OF_TESTS


def is_reporting(function):
    return REPORTING.match(function[2])


def addresses(functions):
    """Where the functions lie, as "FROM-TO FROM-TO ...", relative to the program."""
    joined = []
    for begin, size, *_ in sorted(functions):
        if joined and begin <= joined[-1][1] + 16:
            joined[-1][1] = max(begin + size, joined[-1][1])
        else:
            joined.append([begin, begin + size])
    return " ".join(f"{begin:x}-{end:x}" for begin, end in joined)


def environment_of(program, library):
    functions = list(functions_of(program))
    return dict(os.environ, LD_PRELOAD=library, QX_TIMER_TESTS=addresses(filter(is_of_tests, functions)),
                QX_TIMER_REPORTING=addresses(filter(is_reporting, functions)),
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
