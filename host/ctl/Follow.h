#pragma once

#include "Answers.h"
#include "Endpoint.h"

#include <chrono>
#include <string>

/// What is shown live.
class Followed {
public:
    enum class Next { GoOn, ConnectAgain, Stop };

    Followed() = default;
    Followed(const Followed&) = delete;
    Followed& operator=(const Followed&) = delete;
    virtual ~Followed() = default;

    /// @return what to ask for, so that what was shown already does not come again
    virtual std::string Target() const = 0;
    /// Is told that a connection was made, on which all comes from the beginning that was asked for.
    virtual void OnConnected() {}
    /// Shows a message.
    virtual Next Show(const Answers::Value& message) = 0;
};

/// Shows live data until it ends. When the connection breaks, it is made again, with growing pauses for as long as it
/// takes. What cannot be followed at all is a CtlError.
void Follow(const Endpoint& endpoint, Followed& followed);

/// How long to wait before the next attempt.
class Backoff {
public:
    using Duration = std::chrono::milliseconds;

    Duration Next();
    void Reset() { _next = First; }

private:
    static constexpr Duration First{200};
    static constexpr Duration Longest{10000};
    Duration _next = First;
};
