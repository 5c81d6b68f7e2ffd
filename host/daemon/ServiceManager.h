#pragma once

#include <chrono>
#include <optional>
#include <string>

/// The service manager that started this process, such as systemd, if there is one that listens
/// (sd_notify(3)).
///
/// Its address is taken out of the environment: programs that the library starts inherit that, and Podman
/// would announce itself as the main process of this service.
class ServiceManager {
public:
    /// Called once, before there are threads.
    ServiceManager();

    /// Sends a state, such as "READY=1". Without a service manager nothing happens; a failure is of no
    /// consequence.
    void Tell(const std::string& state) const;

    /// @return within which time it wants to hear "WATCHDOG=1"; nothing when it does not
    std::optional<std::chrono::microseconds> WatchdogInterval() const { return _watchdog; }

private:
    std::string _address;
    std::optional<std::chrono::microseconds> _watchdog;
};
