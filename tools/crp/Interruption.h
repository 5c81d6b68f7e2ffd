#pragma once

#include <csignal>

/// Thrown when the user wants the tool to end; half-done files go on the way out.
struct Interrupted {
    int signal;
};

/// While this lives, the signals that ask a program to end wait until they are asked for.
class Interruption {
public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    /// Throws Interrupted when one of the signals came.
    void Check() const;

    /// Waits for a child. When a signal comes first, the child is killed and Interrupted is thrown.
    /// @return the child's wait status
    int WaitFor(pid_t child) const;

private:
    sigset_t _endRequests{};
    sigset_t _before{};
};

/// Ends this process by a signal, as if it had never been held back.
[[noreturn]] void EndBySignal(int signal);
