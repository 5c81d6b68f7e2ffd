#pragma once

namespace QxNContainer {

/// Nominal host of Podman's REST API; the connection goes to its Unix socket.
inline constexpr const char* PodmanBaseUrl = "http://localhost";

/// Version prefix of every endpoint. Podman answers to any version of the same major number.
inline constexpr const char* PodmanApiPrefix = "/v5.8.1";

}  // namespace QxNContainer
