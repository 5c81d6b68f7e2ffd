#pragma once

/// Ends the `podman system service` processes among this process's children with SIGKILL; for those that do not hear
/// SIGTERM because they hang. Nobody else's processes are touched.
/// @return how many were signalled
int KillPodmanServices();

/// The same for those that nobody watches, such as one that hung while it started: waits for their ends and collects
/// them.
/// @return how many there were
int EndPodmanServices();

/// @return how many `podman system service` processes are among this process's children
int CountPodmanServices();
