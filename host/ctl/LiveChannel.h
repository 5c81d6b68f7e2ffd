#pragma once

#include "Endpoint.h"

#include <memory>
#include <optional>
#include <string>

/// A WebSocket on which the daemon sends texts. One text has at most 16 MiB.
class LiveChannel {
public:
    LiveChannel() = default;
    LiveChannel(const LiveChannel&) = delete;
    LiveChannel& operator=(const LiveChannel&) = delete;
    virtual ~LiveChannel() = default;

    /// Waits for the next text.
    /// @return nothing when the connection has ended; what no daemon sends is a CtlError
    virtual std::optional<std::string> Read() = 0;
};

/// @param target  as ApiPath makes it
/// Refusals and missing connections are CtlErrors.
std::unique_ptr<LiveChannel> OpenLiveChannel(const Endpoint& endpoint, const std::string& target);
