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

/// Starts the tool with its outputs in files.
/// @param pendingSignal  signal that it gets before it runs; 0: none
inline pid_t Start(std::vector<std::string> arguments, int pendingSignal = 0) {
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/run/tool.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open("/run/tool.err", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        std::string name = "crp";
        std::vector<char*> words{name.data()};
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        if (pendingSignal != 0) {
            raise(pendingSignal);
        }
        execv(QX_CRP_TOOL, words.data());
        _exit(127);
    }
    return child;
}

inline Result Finish(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
            Sandbox::ReadFile("/run/tool.out"), Sandbox::ReadFile("/run/tool.err")};
}

inline Result RunTool(const std::vector<std::string>& arguments) { return Finish(Start(arguments)); }

}  // namespace ToolRun
