#pragma once

/// SIGTERM and SIGINT as something that can be waited for.
///
/// The signals are caught rather than blocked: a blocked signal stays blocked in every program that the
/// library starts, and Podman would then not hear the SIGTERM that is to end it.
class StopSignal {
public:
    /// Catches the signals from now on; one that arrives before Wait() is not lost.
    /// Throws std::system_error when that is not possible.
    StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;
    ~StopSignal();

    /// Blocks until one of the signals has arrived.
    /// @return its number
    int Wait();

    /// @return whether one of the signals has arrived
    bool HasArrived() const;
};
