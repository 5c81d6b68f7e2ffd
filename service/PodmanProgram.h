#pragma once

namespace QxNContainer {

/// The Podman program as it is linked into the root file system.
inline constexpr const char* PodmanProgram = "/bin/podman";

/// The CPU set in which Podman and all containers run. Podman's own default parent of containers has the same
/// name, so that they land below it.
inline constexpr const char* ContainerCpuSet = "libpod_parent";

/// How long a Podman service that was told to end gets until it is left to end unseen.
inline constexpr int ReapTimeoutMs = 1000;

/// Sets the variables that Podman needs in this process's own environment, from where every later child
/// inherits them: the search path of its libraries, and no warning about control groups version 1.
void SetPodmanEnvironment();

}  // namespace QxNContainer
