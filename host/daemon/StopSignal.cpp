#include "StopSignal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

// The handler may only touch what is lock-free and signal-safe; a pipe makes the signal something to wait
// for.
int signalPipe[2] = {-1, -1};

void Notice(int signal) {
    const int savedErrno = errno;
    const auto byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t written = write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

bool SetHandler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    return sigaction(SIGTERM, &action, nullptr) == 0 && sigaction(SIGINT, &action, nullptr) == 0;
}

}  // namespace

StopSignal::StopSignal() {
    // Not blocking, so that a flood of signals cannot make the handler wait.
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "make a pipe for signals");
    }
    if (!SetHandler(Notice)) {
        throw std::system_error(errno, std::generic_category(), "catch signals");
    }
}

StopSignal::~StopSignal() {
    SetHandler(SIG_IGN);
    close(signalPipe[0]);
    close(signalPipe[1]);
}

int StopSignal::Wait() {
    unsigned char signal = 0;
    while (read(signalPipe[0], &signal, 1) != 1) {
        pollfd readable{signalPipe[0], POLLIN, 0};
        poll(&readable, 1, -1);
    }
    return signal;
}

bool StopSignal::HasArrived() const {
    pollfd readable{signalPipe[0], POLLIN, 0};
    return poll(&readable, 1, 0) > 0;
}
