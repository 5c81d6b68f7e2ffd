#pragma once

#include "QxNJson.h"
#include "Sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <map>
#include <string>
#include <vector>

/// Runs qxctl as an operator does.
namespace CtlRun {

using Arguments = std::vector<std::string>;

struct Surroundings {
    std::map<std::string, std::string> environment;  ///< beside TZ and TERM
    std::string input;
};

struct Result {
    int exitCode;  ///< -1 when a signal ended it
    std::string output;
    std::string errors;

    QxNJson::json Json() const { return QxNJson::json::parse(output); }
};

/// Becomes the tool; in a child.
[[noreturn]] inline void Become(Arguments arguments, const Surroundings& surroundings) {
    for (const char* variable : {"QXCTL_SOCKET", "QXCTL_TOKEN", "NO_COLOR", "VISUAL", "EDITOR", "COLUMNS"}) {
        unsetenv(variable);
    }
    setenv("TZ", "UTC", 1);
    setenv("TERM", "xterm", 1);
    for (const auto& [name, value] : surroundings.environment) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    std::string name = "qxctl";
    std::vector<char*> words{name.data()};
    for (std::string& argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);
    execv(QXCTL_PROGRAM, words.data());
    _exit(127);
}

/// Starts the tool with its outputs in files.
inline pid_t Start(const Arguments& arguments, const Surroundings& surroundings = {}) {
    Sandbox::WriteFile("/run/ctl.in", surroundings.input);
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/run/ctl.in", O_RDONLY), STDIN_FILENO);
        dup2(open("/run/ctl.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open("/run/ctl.err", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        Become(arguments, surroundings);
    }
    return child;
}

inline std::string Output() { return Sandbox::ReadFile("/run/ctl.out"); }
inline std::string Errors() { return Sandbox::ReadFile("/run/ctl.err"); }

inline Result Finish(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Output(), Errors()};
}

inline Result RunCtl(const Arguments& arguments, const Surroundings& surroundings = {}) {
    return Finish(Start(arguments, surroundings));
}

/// A terminal with the tool on it.
class Terminal {
public:
    explicit Terminal(const Arguments& arguments, const Surroundings& surroundings = {}) {
        winsize size{24, 100, 0, 0};
        _child = forkpty(&_side, nullptr, nullptr, &size);
        if (_child == 0) {
            Become(arguments, surroundings);
        }
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    ~Terminal() { close(_side); }

    /// Waits until the terminal has shown a text.
    bool Shows(const std::string& text) {
        while (_shown.find(text) == std::string::npos && Read()) {
        }
        return _shown.find(text) != std::string::npos;
    }

    void Type(const std::string& keys) {
        const ssize_t written = write(_side, keys.data(), keys.size());
        static_cast<void>(written);
    }

    /// Waits for the end of the tool.
    /// @return with all that was shown as the output; line feeds without carriage returns
    Result Finish() {
        while (Read()) {
        }
        int status = 0;
        waitpid(_child, &status, 0);
        std::string text;
        for (size_t i = 0; i < _shown.size(); ++i) {
            if (_shown[i] != '\r' || i + 1 == _shown.size() || _shown[i + 1] != '\n') {
                text += _shown[i];
            }
        }
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text, ""};
    }

private:
    bool Read() {
        constexpr int Patience = 20000;
        pollfd readable{_side, POLLIN, 0};
        char bytes[4096];
        const ssize_t count =
            poll(&readable, 1, Patience) == 1 ? read(_side, bytes, sizeof(bytes)) : ssize_t{0};
        if (count > 0) {
            _shown.append(bytes, static_cast<size_t>(count));
        }
        return count > 0;
    }

    pid_t _child = -1;
    int _side = -1;
    std::string _shown;
};

inline Result RunOnTerminal(const Arguments& arguments, const Surroundings& surroundings = {}) {
    return Terminal(arguments, surroundings).Finish();
}

}  // namespace CtlRun
