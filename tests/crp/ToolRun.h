#pragma once

#include "QxNJson.h"
#include "Sandbox.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <string>
#include <vector>

/// Runs the plugin tool as a user does.
namespace ToolRun {

struct Result {
    int exitCode;  ///< -1 when a signal ended it
    int signal;
    std::string output;
    std::string errors;

    QxNJson::json Json() const { return QxNJson::json::parse(output); }
};

constexpr const char* OutputFile = "/run/tool.out";

inline void WriteInto(const char* path, int descriptor) {
    dup2(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), descriptor);
}

/// Becomes the tool.
[[noreturn]] inline void Become(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "crp");
    std::vector<char*> words;
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    execv(QX_CRP_TOOL, words.data());
    _exit(127);
}

/// Starts the tool with its outputs in files.
/// @param pendingSignal  signal that it gets before it runs; 0: none
/// @param output         where its standard output goes
inline pid_t Start(const std::vector<std::string>& arguments, int pendingSignal = 0,
                   const char* output = OutputFile) {
    const pid_t child = fork();
    if (child == 0) {
        WriteInto(output, STDOUT_FILENO);
        WriteInto("/run/tool.err", STDERR_FILENO);
        if (pendingSignal != 0) {
            raise(pendingSignal);
        }
        Become(arguments);
    }
    return child;
}

inline Result Finish(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
            Sandbox::ReadFile(OutputFile), Sandbox::ReadFile("/run/tool.err")};
}

inline Result RunTool(const std::vector<std::string>& arguments) { return Finish(Start(arguments)); }

}  // namespace ToolRun
