#include "LogHub.h"

#include "ContainerLog.h"
#include "ContainerState.h"
#include "PodmanLog.h"
#include "QxCContainer.h"

#include <algorithm>
#include <condition_variable>
#include <iterator>
#include <list>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

using QxNContainer::QxCContainer;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds ReadyTimeout{5};
constexpr int HttpOk = 200;
constexpr int HttpNotFound = 404;

LogHub::Opened Refuse(LogError::Kind kind, std::string text) { return {nullptr, {kind, std::move(text)}}; }

}  // namespace

/// Shared by the hub and its viewers' places, so that viewers may outlive the hub.
class LogHub::Impl : public std::enable_shared_from_this<LogHub::Impl> {
public:
    Impl(QxCContainer& service, const Limits& limits)
        : _service(service), _limits(limits), _keeper([this] { Keep(); }) {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() = default;

    void Stop() {
        std::call_once(_stop, [this] {
            {
                const std::lock_guard lock(_mutex);
                _isStopping = true;
                _keeperCondition.notify_one();
            }
            _keeper.join();
        });
    }

    Opened Open(const std::string& container, const LogStart& start) {
        if (!start.after.empty() && !LogCursor::Read(start.after)) {
            return Refuse(LogError::Kind::BadCursor, "the cursor is malformed");
        }
        LogError error;
        const auto state = AskState(container, error);
        if (!state) {
            return {nullptr, error};
        }
        const auto stream = Join(*state, error);
        if (stream == nullptr) {
            return {nullptr, error};
        }
        // From here on it is the place that leaves.
        std::shared_ptr<void> place(nullptr,
                                    [self = shared_from_this(), stream](void*) { self->Leave(*stream); });
        stream->log->WaitUntilReady(ReadyTimeout);
        return {std::make_unique<LogViewer>(stream->log, std::move(place), start), {}};
    }

    size_t Streams() const {
        const std::lock_guard lock(_mutex);
        return _streams.size();
    }

    size_t Viewers() const {
        const std::lock_guard lock(_mutex);
        return _viewers;
    }

private:
    /// The log of a container that is being read.
    struct Stream {
        std::shared_ptr<ContainerLog> log;
        std::unique_ptr<PodmanLog> reader = {};
        size_t viewers = 0;
        Clock::time_point idleSince = {};
    };
    using StreamPtr = std::shared_ptr<Stream>;

    std::optional<ContainerState> AskState(const std::string& container, LogError& error) {
        if (!ContainerState::IsName(container)) {
            error = {LogError::Kind::NotFound, "no container can have that name"};
            return {};
        }
        const PodmanResponse response = _service.ExecutePodmanRequest(ContainerState::Endpoint(container),
                                                                      QxCCurlHandler::Get, {}, {}, false);
        if (response.httpCode == HttpNotFound) {
            error = {LogError::Kind::NotFound, "there is no such container"};
            return {};
        }
        auto state = response.httpCode == HttpOk ? ContainerState::Read(response.body) : std::nullopt;
        if (!state) {
            error = {LogError::Kind::NoPodman, "no answer from Podman"};
        }
        return state;
    }

    /// @return the container's stream with one viewer more; null with an error when there is no room
    StreamPtr Join(const ContainerState& state, LogError& error) {
        error = {LogError::Kind::TooMany, "too many logs are being watched"};
        StreamPtr stream;
        {
            const std::lock_guard lock(_mutex);
            if (_isStopping) {
                error = {LogError::Kind::Stopping, "the service stops"};
                return nullptr;
            }
            const auto found = std::find_if(_streams.begin(), _streams.end(), [&](const StreamPtr& running) {
                return running->log->Id() == state.id;
            });
            if (found != _streams.end()) {
                ++_viewers;
                ++(*found)->viewers;
                return *found;
            }
            if (_streams.size() >= _limits.containers && !EndAnIdleStream()) {
                return nullptr;
            }
            stream = MakeStream(state);
            _streams.push_back(stream);
            ++_viewers;
        }
        return Start(stream) ? stream : nullptr;
    }

    StreamPtr MakeStream(const ContainerState& state) {
        auto stream = std::make_shared<Stream>(Stream{std::make_shared<ContainerLog>(
            state.id, state.hasTerminal, _limits.ringLines, _limits.ringBytes)});
        stream->reader = std::make_unique<PodmanLog>(
            _service, state, stream->log,
            PodmanLog::Limits{_limits.history, _limits.ringBytes, _limits.lineBytes},
            [this, stream = stream.get()] { OnDone(*stream); });
        stream->viewers = 1;
        return stream;
    }

    bool Start(const StreamPtr& stream) {
        try {
            stream->reader->Start();
            return true;
        } catch (const std::system_error&) {
            stream->log->End({"error", "no more threads"});
            Leave(*stream);
            OnDone(*stream);
            return false;
        }
    }

    void Leave(Stream& stream) {
        const std::lock_guard lock(_mutex);
        --_viewers;
        if (--stream.viewers == 0) {
            stream.idleSince = Clock::now();
            _keeperCondition.notify_one();
        }
    }

    /// Called by a stream's thread at its end.
    void OnDone(const Stream& stream) {
        const std::lock_guard lock(_mutex);
        PartIf([&](const Stream& running) { return &running == &stream; });
    }

    bool EndAnIdleStream() {
        bool isFound = false;
        PartIf([&](const Stream& stream) { return !isFound && (isFound = stream.viewers == 0); });
        return isFound;
    }

    /// Hands streams over to the keeper; with the mutex held.
    template <typename Predicate>
    void PartIf(Predicate predicate) {
        for (auto stream = _streams.begin(); stream != _streams.end();) {
            const auto next = std::next(stream);
            if (predicate(**stream)) {
                _parting.splice(_parting.end(), _streams, stream);
                _keeperCondition.notify_one();
            }
            stream = next;
        }
    }

    /// Ends streams that nobody watches any more and waits for their threads.
    void Keep() {
        std::unique_lock lock(_mutex);
        for (;;) {
            const auto now = Clock::now();
            PartIf([&](const Stream& stream) {
                return _isStopping || (stream.viewers == 0 && stream.idleSince + _limits.linger <= now);
            });
            if (!_parting.empty()) {
                const std::list<StreamPtr> parting = std::move(_parting);
                _parting.clear();
                lock.unlock();
                End(parting);
                lock.lock();
            } else if (_isStopping) {
                return;
            } else {
                WaitForWork(lock);
            }
        }
    }

    static void End(const std::list<StreamPtr>& streams) {
        for (const StreamPtr& stream : streams) {
            stream->reader->Stop();
        }
        for (const StreamPtr& stream : streams) {
            stream->reader->Join();
        }
    }

    void WaitForWork(std::unique_lock<std::mutex>& lock) {
        std::optional<Clock::time_point> next;
        for (const StreamPtr& stream : _streams) {
            if (stream->viewers == 0) {
                const auto end = stream->idleSince + _limits.linger;
                next = next ? std::min(*next, end) : end;
            }
        }
        if (next) {
            _keeperCondition.wait_until(lock, *next);
        } else {
            _keeperCondition.wait(lock);
        }
    }

    QxCContainer& _service;
    const Limits _limits;
    mutable std::mutex _mutex;
    std::condition_variable _keeperCondition;
    std::list<StreamPtr> _streams;  ///< whose logs are being read
    std::list<StreamPtr> _parting;  ///< to be ended by the keeper
    size_t _viewers = 0;
    bool _isStopping = false;
    std::once_flag _stop;
    std::thread _keeper;
};

LogHub::LogHub(QxCContainer& service) : LogHub(service, Limits{}) {}

LogHub::LogHub(QxCContainer& service, const Limits& limits)
    : _impl(std::make_shared<Impl>(service, limits)) {}

LogHub::~LogHub() { Stop(); }

void LogHub::Stop() { _impl->Stop(); }

LogHub::Opened LogHub::Open(const std::string& container, const LogStart& start) {
    return _impl->Open(container, start);
}

size_t LogHub::Streams() const { return _impl->Streams(); }

size_t LogHub::Viewers() const { return _impl->Viewers(); }
