// What the container of the demonstration runs: writes the time, five times a second, until it is told to end. Linked
// statically, so that it runs in any image.

#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <ctime>

namespace {

// The first process of a container ignores signals that it does not catch.
volatile std::sig_atomic_t isTold = 0;

void Notice(int /*signal*/) { isTold = 1; }

}  // namespace

int main() {
    std::signal(SIGTERM, Notice);
    while (isTold == 0) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        std::printf("%lld.%09ld\n", static_cast<long long>(now.tv_sec), now.tv_nsec);
        std::fflush(stdout);
        usleep(200000);
    }
}
