#include "PodmanLog.h"

#include "LogText.h"
#include "QxNJson.h"
#include "support/ErrorListScope.h"

#include <exception>
#include <utility>

using QxNContainer::QxCContainer;
using std::chrono::milliseconds;

namespace {

constexpr size_t LongestAnswer = size_t{1024} * 1024;
constexpr milliseconds StatePause{100};
constexpr int StateAttempts = 20;
constexpr size_t LongestFailure = 512;
constexpr int HttpOk = 200;
constexpr int HttpNotFound = 404;

// A stream that ends at once, again and again, while the container runs.
constexpr milliseconds IdleStream{1000};
constexpr int IdleStreams = 5;
constexpr milliseconds IdleStreamPause{300};

/// @return the cause that Podman gives in the answer to a request that failed
std::string CauseIn(const std::string& answer) {
    const QxNJson::json error = QxNJson::json::parse(answer);
    if (error.is_object() && error.contains("cause") && error["cause"].is_string()) {
        return error["cause"].get<std::string>();
    }
    return {};
}

ContainerLog::Ending FailureOf(int httpCode, const std::string& cause) {
    switch (httpCode) {
        case 0:
            return {"podman", "no answer from Podman"};
        case HttpNotFound:
            return {"removed", "the container is gone"};
        default:
            return {"error", "Podman refuses with " + std::to_string(httpCode) +
                                 (cause.empty() ? cause : ": " + cause)};
    }
}

ContainerLog::Ending EndingOf(const ContainerState& state) {
    const bool hasRun = state.status == "exited" || state.status == "stopped";
    return {"exited", hasRun ? "exit code " + std::to_string(state.exitCode) : state.status};
}

}  // namespace

int PodmanLog::Receiver::sendBinary(QxCErrorListPool& /*errors*/, const unsigned char* data,
                                    unsigned int length, int /*timeoutMs*/, bool /*fragment*/) {
    // Exceptions must not pass through the HTTP client.
    try {
        return take({reinterpret_cast<const char*>(data), length}) ? 0 : 1;
    } catch (const std::exception&) {
        return 1;
    }
}

PodmanLog::PodmanLog(QxCContainer& service, const ContainerState& container,
                     std::shared_ptr<ContainerLog> log, const Limits& limits, std::function<void()> done)
    : _service(service),
      _container(container),
      _log(std::move(log)),
      _limits(limits),
      _done(std::move(done)),
      _state(container) {}

void PodmanLog::Start() {
    _session = _service.RegisterLogStreamSession(&_receiver, _container.id);
    // As it comes, with the frames' marks: what the library sends of frames does not tell standard output and error
    // apart, and two streams would lose the order between them.
    _session->tty = true;
    try {
        // The thread may be done, and somebody wait for it, before it is even noted here.
        const std::lock_guard lock(_threadMutex);
        if (!IsStopping()) {
            _thread = std::thread([this] { Run(); });
            return;
        }
    } catch (...) {
        _service.UnregisterLogStreamSession(&_receiver);
        throw;
    }
    _service.UnregisterLogStreamSession(&_receiver);
}

bool PodmanLog::IsStopping() {
    const std::lock_guard lock(_stopMutex);
    return _isStopping;
}

void PodmanLog::Stop() {
    _log->End({"stopping", "the service stops"});
    {
        // From here on no thread is started any more; one that is there has a session to be ended.
        const std::lock_guard lock(_stopMutex);
        _isStopping = true;
        _stopCondition.notify_all();
    }
    QxCContainer::LogStreamCloseHandler(nullptr, 0, &_receiver);
}

void PodmanLog::Join() {
    const std::lock_guard lock(_threadMutex);
    if (_thread.joinable()) {
        _thread.join();
    }
}

bool PodmanLog::Pause(milliseconds time) {
    std::unique_lock lock(_stopMutex);
    return !_stopCondition.wait_for(lock, time, [this] { return _isStopping; });
}

void PodmanLog::Run() {
    ContainerLog::Ending ending{"error", "no more memory"};
    try {
        ending = Read();
    } catch (const std::exception&) {
    }
    _service.UnregisterLogStreamSession(&_receiver);
    _log->End(std::move(ending));
    _done();
}

ContainerLog::Ending PodmanLog::Read() {
    if (const auto ending = ReadHistory()) {
        return *ending;
    }
    for (int idle = 0; idle < IdleStreams; ++idle) {
        const auto begin = Clock::now();
        const std::string lastEnd = _state.finishedAt;
        if (const auto ending = Follow()) {
            return *ending;
        }
        _log->SetReady();
        if (const auto ending = FindEnding()) {
            return *ending;
        }
        if (Clock::now() - begin > IdleStream || _state.finishedAt != lastEnd) {
            idle = 0;
        } else if (!Pause(IdleStreamPause)) {
            break;
        }
    }
    return {"error", "Podman ends the log although the container runs"};
}

std::optional<PodmanLog::Ending> PodmanLog::ReadHistory() {
    LogHistory history(_limits.history, _limits.ringBytes);
    std::string failure;
    const int httpCode = RequestLines(
        "&tail=" + std::to_string(_limits.history), [&](LogLinePtr line) { history.Add(std::move(line)); },
        [] {}, failure);
    if (httpCode != HttpOk) {
        return FailureOf(httpCode, failure);
    }
    const bool isFinal = NobodyWrote();
    LogHistory::Result result = history.Settle(isFinal);
    for (const LogLinePtr& line : result.lines) {
        _known.Know(line->mark);
    }
    const bool isComplete =
        !result.last || (!result.lines.empty() && result.lines.back()->mark == result.last);
    _since = result.since;
    _target = result.last;
    _log->Append(result.lines);
    if (isComplete) {
        _log->SetReady();
    }
    // Lines of a single time may all be among those that cannot be relied on.
    return isFinal && isComplete ? std::optional(EndingOf(_state)) : std::nullopt;
}

bool PodmanLog::NobodyWrote() {
    return !_container.IsRunning() && !_container.IsChanging() && RequestState() == HttpOk &&
           _state.status == _container.status && _state.finishedAt == _container.finishedAt;
}

std::optional<PodmanLog::Ending> PodmanLog::Follow() {
    const auto since = _known.Since() ? _known.Since() : _since;
    _known.Restart();
    std::vector<LogLinePtr> lines;
    bool hasReached = false;
    std::string failure;
    const int httpCode = RequestLines(
        "&follow=true" + (since ? "&since=" + LogText::WriteTime(*since) : ""),
        [&](LogLinePtr line) {
            hasReached = hasReached || (_target && line->mark == *_target);
            if (_known.IsNew(line->mark)) {
                lines.push_back(std::move(line));
            }
        },
        [&] {
            _log->Append(lines);
            if (std::exchange(hasReached, false)) {
                _log->SetReady();
            }
        },
        failure);
    return httpCode != HttpOk ? std::optional(FailureOf(httpCode, failure)) : std::nullopt;
}

std::optional<PodmanLog::Ending> PodmanLog::FindEnding() {
    for (int attempt = 0; attempt < StateAttempts; ++attempt) {
        const int httpCode = RequestState();
        if (httpCode != HttpOk) {
            return FailureOf(httpCode, {});
        }
        if (_state.IsRunning()) {
            return {};
        }
        if ((!_state.IsChanging() && !_state.isRestarted) || !Pause(StatePause)) {
            break;
        }
    }
    return EndingOf(_state);
}

int PodmanLog::RequestLines(const std::string& query, const std::function<void(LogLinePtr)>& take,
                            const std::function<void()>& chunkTaken, std::string& failure) {
    LogParser parser(_container.hasTerminal, _limits.lineBytes);
    LogLineMaker maker(_container.id);
    const LogParser::Sink sink = [&](const LogParser::Piece& piece) { take(maker.Make(piece)); };
    const int httpCode = Request(
        "/libpod/containers/" + _container.id + "/logs?stdout=true&stderr=true&timestamps=true" + query,
        [&](std::string_view bytes) {
            const bool isGood = parser.Take(bytes, sink);
            chunkTaken();
            // What else comes may be the reason.
            return isGood || parser.Broken().size() < LongestFailure;
        });
    failure = CauseIn(parser.Broken());
    return httpCode;
}

int PodmanLog::RequestState() {
    std::string answer;
    const int httpCode = Request(ContainerState::Endpoint(_container.id), [&](std::string_view bytes) {
        answer += bytes;
        return answer.size() < LongestAnswer;
    });
    if (httpCode != HttpOk) {
        return httpCode;
    }
    const auto state = ContainerState::Read(answer);
    if (!state) {
        return 0;
    }
    _state = *state;
    return HttpOk;
}

int PodmanLog::Request(const std::string& endpoint, std::function<bool(std::string_view)> take) {
    _receiver.take = std::move(take);
    QxNSupport::ErrorListScope errors;
    return _service
        .StreamPodmanRequest(endpoint, QxCCurlHandler::Get, {}, errors.List(), _session, &_receiver)
        .httpCode;
}
