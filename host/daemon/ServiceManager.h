#pragma once

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

private:
    std::string _address;
};
