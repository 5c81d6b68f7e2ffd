#pragma once

#include <optional>
#include <string>
#include <string_view>

/// What the log needs to know of a container.
struct ContainerState {
    std::string id;
    std::string name;
    bool hasTerminal = false;
    std::string status;      ///< Podman's word: running, exited, ...
    std::string finishedAt;  ///< when it ran last
    int exitCode = 0;
    bool isRestarted = false;  ///< Podman starts it again when it ends

    bool IsRunning() const { return status == "running"; }
    /// @return whether the status is one that goes over soon
    bool IsChanging() const { return status == "stopping" || status == "removing"; }

    /// @param name  name or id as Podman may have given it
    /// @return whether it may be put into a URL
    static bool IsName(std::string_view name);
    /// @return the endpoint to ask Podman about a container
    static std::string Endpoint(const std::string& container);
    /// Reads Podman's answer.
    /// @return nothing when it is not what Podman answers about a container
    static std::optional<ContainerState> Read(std::string_view json);
};
