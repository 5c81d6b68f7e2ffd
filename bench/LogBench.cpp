// A line for the log file, at a level that is on and at one that is off, beside the platform's own call with the text
// finished and beside a function that asks a flag. With the platform services of Linux.

#include "QxCLogfile.h"
#include "RunInSandbox.h"
#include "support/Log.h"

#include <benchmark/benchmark.h>
#include <atomic>

namespace {

constexpr const char* File = "/mnt/cfdrive/containers/container_rte_settings.json";

void EnabledOurs(benchmark::State& state) {
    for (auto _ : state) {
        QxCRTE_LOG_Impl(RteLogLevel::Info, "Quolex Container Service: Settings file '%s' of %d bytes", File,
                        107);
    }
}
void EnabledBare(benchmark::State& state) {
    for (auto _ : state) {
        QxCLogfile::getInstance()->logPrintf(
            "[INFO] Quolex Container Service: Settings file '%s' of %d bytes\n", File, 107);
    }
}
constexpr double LongRun = 2;  // seconds: calls of the system, which any load of the machine upsets
BENCHMARK(EnabledOurs)->Name("LogLine/ours")->MinTime(LongRun);
BENCHMARK(EnabledBare)->Name("LogLine/bare")->MinTime(LongRun);

void DisabledOurs(benchmark::State& state) {
    for (auto _ : state) {
        QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Service: Settings file '%s' of %d bytes",
                          File, 107);
    }
}
/// Not inlined, as the level is asked for across the border of a library.
[[gnu::noinline]] bool IsWanted() {
    static std::atomic<int> threshold{0};
    return threshold.load(std::memory_order_relaxed) > 0;
}
void DisabledBare(benchmark::State& state) {
    for (auto _ : state) {
        if (IsWanted()) {
            QxCLogfile::getInstance()->logPrintf("%s", File);
        }
    }
}
BENCHMARK(DisabledOurs)->Name("LogLineSwitchedOff/ours");
BENCHMARK(DisabledBare)->Name("LogLineSwitchedOff/bare");

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmarksInSandbox(argc, argv, [] {});
}
