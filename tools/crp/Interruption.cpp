#include "Interruption.h"

#include "ToolError.h"

#include <sys/wait.h>
#include <unistd.h>
#include <cstdlib>
#include <ctime>

Interruption::Interruption() {
    sigemptyset(&_endRequests);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&_endRequests, signal);
    }
    sigset_t held = _endRequests;
    sigaddset(&held, SIGCHLD);
    sigprocmask(SIG_BLOCK, &held, &_before);
}

Interruption::~Interruption() { sigprocmask(SIG_SETMASK, &_before, nullptr); }

void Interruption::Check() const {
    const timespec now{};
    const int signal = sigtimedwait(&_endRequests, nullptr, &now);
    if (signal > 0) {
        throw Interrupted{signal};
    }
}

int Interruption::WaitFor(pid_t child) const {
    sigset_t awaited = _endRequests;
    sigaddset(&awaited, SIGCHLD);
    int status = 0;
    for (;;) {
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended < 0) {
            ThrowSystemError("cannot wait for a program");
        }
        if (ended == child) {
            return status;
        }
        const int signal = sigwaitinfo(&awaited, nullptr);
        if (signal > 0 && signal != SIGCHLD) {
            kill(child, SIGKILL);
            TEMP_FAILURE_RETRY(waitpid(child, nullptr, 0));
            throw Interrupted{signal};
        }
    }
}

void EndBySignal(int signal) {
    std::signal(signal, SIG_DFL);
    raise(signal);
    _exit(128 + signal);  // when the signal is blocked
}
