#include "Follow.h"

#include "Console.h"
#include "CtlError.h"
#include "LiveChannel.h"

#include <algorithm>
#include <thread>

namespace {

/// After a connection that held so long, the next attempt comes soon again.
constexpr std::chrono::seconds LastingConnection{10};

/// Whether something that went wrong may be right again by itself.
bool MayPass(const CtlError& error) {
    return error.GetExitCode() == ExitCode::Unreachable ||
           (error.HttpStatus() >= 502 && error.HttpStatus() <= 504);
}

/// Connections, of which one follows the other.
class Connections {
public:
    Connections(const Endpoint& endpoint, Followed& followed) : _endpoint(endpoint), _followed(followed) {}

    void Run() {
        while (RunOne()) {
            if (!_isOutageTold) {
                Tell("the connection is lost; trying again");
                _isOutageTold = true;
            }
            if (Clock::now() - _connectedAt >= LastingConnection) {
                _pause.Reset();
            }
            std::this_thread::sleep_for(_pause.Next());
        }
    }

private:
    /// @return whether to connect again
    bool RunOne() {
        const std::unique_ptr<LiveChannel> channel = Open();
        if (channel == nullptr) {
            return true;
        }
        while (const auto text = channel->Read()) {
            if (_isOutageTold) {
                Tell("connected again");
                _isOutageTold = false;
            }
            const QxNJson::json message = Answers::Parse(*text, "a message");
            switch (_followed.Show(message)) {
                case Followed::Next::GoOn:
                    break;
                case Followed::Next::ConnectAgain:
                    return true;
                case Followed::Next::Stop:
                    return false;
            }
        }
        return true;
    }

    /// @return nothing when it did not work, but may later
    std::unique_ptr<LiveChannel> Open() {
        try {
            auto channel = OpenLiveChannel(_endpoint, _followed.Target());
            _wasConnected = true;
            _connectedAt = Clock::now();
            _followed.OnConnected();
            return channel;
        } catch (const CtlError& error) {
            if (!_wasConnected || !MayPass(error)) {
                throw;
            }
            return nullptr;
        }
    }

    using Clock = std::chrono::steady_clock;

    const Endpoint& _endpoint;
    Followed& _followed;
    Backoff _pause;
    Clock::time_point _connectedAt{};
    bool _wasConnected = false;
    bool _isOutageTold = false;
};

}  // namespace

void Follow(const Endpoint& endpoint, Followed& followed) { Connections(endpoint, followed).Run(); }

Backoff::Duration Backoff::Next() {
    const Duration pause = _next;
    _next = std::min(Longest, _next * 2);
    return pause;
}
