#include "Interruption.h"

#include "Progress.h"

#include <unistd.h>
#include <csignal>

namespace {

volatile std::sig_atomic_t exitCode = 0;
volatile std::sig_atomic_t isLineShown = 0;

void End(int) {
    if (isLineShown != 0) {
        // Nothing can be done when this fails.
        [[maybe_unused]] const ssize_t written =
            write(STDERR_FILENO, Progress::WipeLine, sizeof(Progress::WipeLine) - 1);
    }
    _exit(exitCode);
}

}  // namespace

void Interruption::EndsWith(int code) {
    exitCode = code;
    if (std::signal(SIGINT, End) == SIG_IGN) {
        std::signal(SIGINT, SIG_IGN);
    }
}

void Interruption::SetLineShown(bool isShown) { isLineShown = isShown ? 1 : 0; }

Interruption::Ignored::Ignored() : _before(std::signal(SIGINT, SIG_IGN)) {}

Interruption::Ignored::~Ignored() { std::signal(SIGINT, _before); }
