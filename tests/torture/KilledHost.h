#pragma once

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <functional>

/// Runs something in a process of its own that is killed on its way.
namespace KilledHost {

/// @param setUp     runs before; the process is not killed in it
/// @param body      runs until the process is killed
/// @param stop      the stop at which it is killed, from 1; it stops when it enters and when it leaves a
///                  system call
/// @return whether it was killed; false when it came to its end before that
inline bool Run(const std::function<void()>& setUp, const std::function<void()>& body, unsigned int stop) {
    fflush(nullptr);
    const pid_t host = fork();
    if (host == 0) {
        setUp();
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        body();
        _exit(0);
    }
    int status = 0;
    waitpid(host, &status, 0);
    ptrace(PTRACE_SETOPTIONS, host, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    unsigned int stops = 0;
    for (int signal = 0; WIFSTOPPED(status);) {
        ptrace(PTRACE_SYSCALL, host, nullptr, signal);
        waitpid(host, &status, 0);
        const bool isSystemCall = WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80);
        signal = WIFSTOPPED(status) && !isSystemCall ? WSTOPSIG(status) : 0;
        if (isSystemCall && ++stops == stop) {
            kill(host, SIGKILL);
            waitpid(host, &status, 0);
            return true;
        }
    }
    return false;
}

/// Runs something in a process that comes to its end.
/// @return its exit code; -1 when it was killed
inline int RunToItsEnd(const std::function<int()>& body) {
    fflush(nullptr);
    const pid_t host = fork();
    if (host == 0) {
        const int code = body();
        fflush(nullptr);
        _exit(code);
    }
    int status = 0;
    waitpid(host, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace KilledHost
