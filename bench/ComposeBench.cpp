// What running a program and capturing its output costs beside the bare system calls.

#include "QxCComposeFileHandler.h"
#include "QxNContainerPaths.h"
#include "RunInSandbox.h"

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

/// Reaches the runner below the operations.
struct ComposeFileHandlerTest {
    static int Run(QxCComposeFileHandler& handler, char* path, char** argv, std::string& output) {
        return handler._executeShellCommand(path, argv, output);
    }
};

namespace {

constexpr const char* Tool = "/bin/docker-compose";

/// Arguments as exec(2) wants them.
class Arguments {
public:
    explicit Arguments(std::vector<std::string> words) : _words(std::move(words)) {
        for (std::string& word : _words) {
            _pointers.push_back(word.data());
        }
        _pointers.push_back(nullptr);
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
    char** Get() { return _pointers.data(); }

private:
    std::vector<std::string> _words;
    std::vector<char*> _pointers;
};

/// The least that runs a program and keeps its two outputs, in a buffer of which the size is known
/// beforehand.
std::string RunBare(const char* path, char* const* argv, size_t expectedSize = 0) {
    int output[2];
    int errors[2];
    if (pipe(output) != 0 || pipe(errors) != 0) {
        return {};
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, output[0]);
    posix_spawn_file_actions_addclose(&actions, errors[0]);
    pid_t pid = -1;
    posix_spawn(&pid, path, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(output[1]);
    close(errors[1]);
    std::string kept;
    kept.reserve(expectedSize);
    for (const int readEnd : {output[0], errors[0]}) {
        char chunk[4096];
        for (ssize_t length; (length = read(readEnd, chunk, sizeof(chunk))) > 0;) {
            kept.append(chunk, static_cast<size_t>(length));
        }
        close(readEnd);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return kept;
}

/// Memory that this process really has, for as long as this lives.
class Resident {
public:
    explicit Resident(size_t bytes) : _memory(new char[bytes]) { memset(_memory.get(), 1, bytes); }

private:
    std::unique_ptr<char[]> _memory;
};

void RunOurs(benchmark::State& state, const char* path, Arguments& arguments) {
    QxCComposeFileHandler handler("/");
    std::string program = path;
    std::string output;
    for (auto _ : state) {
        if (ComposeFileHandlerTest::Run(handler, program.data(), arguments.Get(), output) != 0) {
            state.SkipWithError(output.c_str());
            break;
        }
        benchmark::DoNotOptimize(output.data());
    }
}

void RunTheBare(benchmark::State& state, const char* path, Arguments& arguments, size_t expectedSize = 0) {
    std::string output;
    for (auto _ : state) {
        output = RunBare(path, arguments.Get(), expectedSize);
        benchmark::DoNotOptimize(output.data());
    }
}

Arguments& NoWork() {
    static Arguments arguments({"true"});
    return arguments;
}

void SpawnOurs(benchmark::State& state) { RunOurs(state, "/bin/true", NoWork()); }
void SpawnBare(benchmark::State& state) { RunTheBare(state, "/bin/true", NoWork()); }
BENCHMARK(SpawnOurs)->Name("ComposeSpawn/ours")->UseRealTime();
BENCHMARK(SpawnBare)->Name("ComposeSpawn/bare")->UseRealTime();

/// The child does not copy this process, so its size does not count: as ComposeSpawn, with 512 MiB.
void SpawnBigOurs(benchmark::State& state) {
    const Resident memory(size_t{512} << 20);
    RunOurs(state, "/bin/true", NoWork());
}
void SpawnBigBare(benchmark::State& state) {
    const Resident memory(size_t{512} << 20);
    RunTheBare(state, "/bin/true", NoWork());
}
BENCHMARK(SpawnBigOurs)->Name("ComposeSpawnFromBigProcess/ours")->UseRealTime();
BENCHMARK(SpawnBigBare)->Name("ComposeSpawnFromBigProcess/bare")->UseRealTime();

/// A tool that has nothing to do.
void InstallQuickTool() {
    std::filesystem::copy_file("/bin/true", Tool, std::filesystem::copy_options::overwrite_existing);
}

/// A tool whose command takes as long as one of the real tool does at best.
void InstallSlowTool() {
    std::filesystem::remove(Tool);
    Sandbox::WriteFile(Tool, "#!/bin/sh\ncase \"$*\" in *' ps '*) ;; *) exec sleep 0.4;; esac\n");
    std::filesystem::permissions(Tool, std::filesystem::perms::owner_all);
}

void OperationOurs(benchmark::State& state, void (*installTool)()) {
    installTool();
    QxCComposeFileHandler handler(QxNContainer::QxNContainerPaths::COMPOSE_FILES_PATH);
    for (auto _ : state) {
        QxNJson::json result;
        if (handler.composeStart("web.yaml", result) != 7) {
            state.SkipWithError("unexpected result");
            break;
        }
    }
}

void OperationBare(benchmark::State& state, void (*installTool)()) {
    installTool();
    Arguments query({"docker-compose", "-f", "/web.yaml", "-p", "web", "ps", "-a"});
    Arguments command({"docker-compose", "-f", "/web.yaml", "-p", "web", "start"});
    for (auto _ : state) {
        for (Arguments* arguments : {&query, &command, &query}) {
            benchmark::DoNotOptimize(RunBare(Tool, arguments->Get()));
        }
    }
}
BENCHMARK_CAPTURE(OperationOurs, quick, InstallQuickTool)->Name("ComposeOperation/ours")->UseRealTime();
BENCHMARK_CAPTURE(OperationBare, quick, InstallQuickTool)->Name("ComposeOperation/bare")->UseRealTime();
BENCHMARK_CAPTURE(OperationOurs, slow, InstallSlowTool)->Name("ComposeOperationOf400ms/ours")->UseRealTime();
BENCHMARK_CAPTURE(OperationBare, slow, InstallSlowTool)->Name("ComposeOperationOf400ms/bare")->UseRealTime();

constexpr size_t CaptureSize = size_t{64} << 20;

Arguments& BigFile() {
    static Arguments arguments({"cat", "/capture"});
    return arguments;
}

void CaptureOurs(benchmark::State& state) { RunOurs(state, "/bin/cat", BigFile()); }
void CaptureBare(benchmark::State& state) { RunTheBare(state, "/bin/cat", BigFile(), CaptureSize); }
BENCHMARK(CaptureOurs)->Name("ComposeCapture64MiB/ours")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(CaptureBare)->Name("ComposeCapture64MiB/bare")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return RunBenchmarksInSandbox(argc, argv, [] {
        Sandbox::WriteFile(QxNContainer::QxNContainerPaths::COMPOSE_FILES_PATH + "web.yaml",
                           "services: {}\n");
        Sandbox::WriteFile("/capture", std::string(CaptureSize, 'x'));
    });
}
