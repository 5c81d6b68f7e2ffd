#pragma once

#include <sys/time.h>
#include <csignal>

/// A signal a thousand times a second that interrupts calls, for as long as this lives.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        Repeat(1000);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;
    ~Interruptions() { Repeat(0); }

private:
    static void Repeat(suseconds_t period) {
        const itimerval timer{{0, period}, {0, period}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
};
