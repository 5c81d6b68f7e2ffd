#include "QxCComposeFileHandler.h"
#include "support/ChildProcess.h"
#include "support/Log.h"
#include "support/UniqueFd.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr int CouldNotStart = 5;
constexpr int Failed = 6;

/// Appends with fourfold growth: with the string's own doubling, most of the time of a large capture goes
/// into copying it to fresh pages again and again.
void Append(std::string& text, const char* chunk, size_t length) {
    if (text.capacity() - text.size() < length) {
        text.reserve(4 * (text.size() + length));
    }
    text.append(chunk, length);
}

/// The two ends of a pipe that carries one of a child's outputs.
struct OutputPipe {
    QxNSupport::UniqueFd readEnd;
    QxNSupport::UniqueFd writeEnd;

    OutputPipe() {
        int ends[2] = {-1, -1};
        if (pipe(ends) == 0) {
            readEnd = QxNSupport::UniqueFd(ends[0]);
            writeEnd = QxNSupport::UniqueFd(ends[1]);
        }
    }

    bool IsOpen() const { return readEnd.IsOpen(); }

    /// Reads everything until the child has closed its end, then closes this one.
    std::string Drain() {
        std::array<char, 4096> chunk;
        std::string output;
        ssize_t length = 0;
        while ((length = read(readEnd.Get(), chunk.data(), chunk.size())) > 0) {
            Append(output, chunk.data(), static_cast<size_t>(length));
        }
        readEnd.Reset();
        return output;
    }
};

/// Leads a child's standard output and error into pipes.
class OutputRedirection {
public:
    OutputRedirection(const OutputPipe& standardOutput, const OutputPipe& standardError) {
        posix_spawn_file_actions_init(&_actions);
        posix_spawn_file_actions_adddup2(&_actions, standardOutput.writeEnd.Get(), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&_actions, standardError.writeEnd.Get(), STDERR_FILENO);
        posix_spawn_file_actions_addclose(&_actions, standardOutput.readEnd.Get());
        posix_spawn_file_actions_addclose(&_actions, standardError.readEnd.Get());
    }
    OutputRedirection(const OutputRedirection&) = delete;
    OutputRedirection& operator=(const OutputRedirection&) = delete;
    ~OutputRedirection() { posix_spawn_file_actions_destroy(&_actions); }

    const posix_spawn_file_actions_t* Actions() const { return &_actions; }

private:
    posix_spawn_file_actions_t _actions;
};

std::string CommandLine(const char* path, char* const* argv) {
    std::string line = path;
    for (char* const* argument = argv; *argument != nullptr; ++argument) {
        line += ' ';
        line += *argument;
    }
    return line;
}

int ReportNotStarted(const std::string& commandLine, int error, std::string& output) {
    output = std::string("spawning command failed: ") + strerror(error);
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container Service:   executing of command failed: '%s'", commandLine.c_str());
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container Service:   %s", strerror(error));
    return CouldNotStart;
}

int ReportNotWaitedFor(const std::string& commandLine, int error, std::string& output) {
    output = "evaluating of command failed, can't read return code!";
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container Service:   evaluating of command failed: '%s'", commandLine.c_str());
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container Service:   can't get return code! %s",
                      strerror(error));
    return Failed;
}

int ReportKilled(const std::string& commandLine, int signal, const std::string& errors, std::string& output) {
    output = "command terminated abnormally: " + errors;
    QX_LOG_IF_ENABLED(RteLogLevel::Debug, "Quolex Container Service:   command '%s' killed by signal %d",
                      commandLine.c_str(), signal);
    return Failed;
}

int ReportExitCode(const std::string& commandLine, int code, std::string errors, std::string& output) {
    output = std::move(errors);
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose,
                      "Quolex Container Service:   executing of command failed: '%s'", commandLine.c_str());
    QX_LOG_IF_ENABLED(RteLogLevel::DebugVerbose, "Quolex Container Service:   return code = %d, %s", code,
                      output.c_str());
    return Failed;
}

}  // namespace

int QxCComposeFileHandler::_executeShellCommand(char* path, char** argv, std::string& output) {
    const std::string commandLine = CommandLine(path, argv);
    OutputPipe standardOutput;
    OutputPipe standardError;
    if (!standardOutput.IsOpen() || !standardError.IsOpen()) {
        return ReportNotStarted(commandLine, errno, output);
    }
    OutputRedirection redirection(standardOutput, standardError);
    const QxNSupport::SpawnResult child = QxNSupport::Spawn(path, argv, redirection.Actions());
    if (child.error != 0) {
        return ReportNotStarted(commandLine, child.error, output);
    }
    standardOutput.writeEnd.Reset();
    standardError.writeEnd.Reset();
    // One after the other: the tool is asked to be quiet, so that its errors fit into the pipe meanwhile.
    std::string text = standardOutput.Drain();
    std::string errors = standardError.Drain();

    QxNSupport::WaitStatus wait{0};
    if (waitpid(child.pid, &wait.status, 0) != child.pid) {
        return ReportNotWaitedFor(commandLine, errno, output);
    }
    if (wait.WasKilled()) {
        return ReportKilled(commandLine, wait.Signal(), errors, output);
    }
    if (wait.ExitCode() != 0) {
        return ReportExitCode(commandLine, wait.ExitCode(), std::move(errors), output);
    }
    output = std::move(text);
    return 0;
}
