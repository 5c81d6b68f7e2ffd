#pragma once

#include <optional>
#include <string>

/// What the user says of the way to the daemon.
struct ConnectionOptions {
    std::optional<std::string> socket;
    std::optional<std::string> address;
    std::optional<std::string> tokenFile;
    std::optional<std::string> ca;
};

/// Where the daemon is and how to get in.
struct Endpoint {
    std::string socketPath;  ///< of the Unix socket; empty: by network
    bool isTls = false;
    std::string host;  ///< without the brackets of an IPv6 address
    std::string port;
    std::string token;   ///< empty: none
    std::string caFile;  ///< certificates to trust; empty: those that the system trusts

    bool IsLocalSocket() const { return !socketPath.empty(); }
    /// @return host and port as in an address
    std::string Authority() const;
    /// @return such as "http://localhost"
    std::string BaseUrl() const;
    /// @return such as "the socket /run/a.sock" or "https://board:8443"
    std::string Name() const;
};

/// Finds out where the daemon is, from options, then from the environment. Wrong values are a CtlError.
Endpoint MakeEndpoint(const ConnectionOptions& options);

inline constexpr const char* DefaultSocket = "/run/qxcontainerd/api.sock";
