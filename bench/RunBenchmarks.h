#pragma once

#include <benchmark/benchmark.h>

/// Runs the benchmarks that the command line asks for. The result tells the filter, so that whoever reads it
/// knows whether it is all of them.
inline int RunBenchmarks(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("filter", benchmark::GetBenchmarkFilter());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
