#pragma once

#include "support/UniqueFd.h"

#include <chrono>
#include <string>
#include <vector>

/// Ends the `podman system service` processes among this process's children with SIGKILL; for those that do not hear
/// SIGTERM because they hang. Nobody else's processes are touched.
/// @return how many were signalled
int KillPodmanServices();

/// The same for those that nobody watches, such as one that hung while it started: waits for their ends and collects
/// them.
/// @return how many there were
int EndPodmanServices();

/// @return descriptors of them (pidfd_open(2)), which become readable when they end
std::vector<QxNSupport::UniqueFd> OpenPodmanServices();

/// @return how many `podman system service` processes are among this process's children
int CountPodmanServices();

/// Ends Podman services as the library starts them whose host is gone, so that the system's first process has them: with
/// SIGTERM, after the time of grace with SIGKILL. Waits for their ends, but at most that time once more.
/// @param tcpPort  of the second service
/// @return how many there were
int EndOrphanedPodmanServices(const std::string& tcpPort, std::chrono::milliseconds grace);
