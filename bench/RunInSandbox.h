#pragma once

#include "tests/sandbox/Sandbox.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

/// Runs the benchmarks in a sandbox; the results are written relative to where the program was started, outside of it.
/// @param prepare  called in the sandbox before the first benchmark
template <typename Function>
int RunBenchmarksInSandbox(int argc, char** argv, Function prepare) {
    const int start = open(".", O_RDONLY | O_DIRECTORY);
    Sandbox::Enter();
    if (fchdir(start) != 0) {
        return 1;
    }
    close(start);
    prepare();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
