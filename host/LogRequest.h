#pragma once

#include <optional>
#include <string>
#include <string_view>

/// What a client wants to see. Read from the target "/logs/NAME" or "/logs/NAME?tail=N" of its request.
struct LogRequest {
    std::string container;     ///< a name or id that Podman may have given: safe to put into a URL
    std::string tail = "100";  ///< how many of the lines that are there already; a number, or "all"

    /// @return nothing when the target is not of that form
    static std::optional<LogRequest> Parse(std::string_view target);

    /// @return the endpoint of Podman's REST API that streams the log
    std::string Endpoint() const;
};

/// @param authority  value of a Host header: a host, with or without a port
/// @return whether the host is this machine by one of its loopback names. Browsers send the name from their address
///         bar, so that other names that lead here are not enough.
bool IsLoopbackAuthority(std::string_view authority);

/// @param origin  value of an Origin header
/// @return whether the page that opens the connection comes from this machine
bool IsLoopbackOrigin(std::string_view origin);
