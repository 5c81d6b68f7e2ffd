#include "daemon/ServiceKeeper.h"

#include "QxCContainer.h"
#include "QxCRTELog.h"
#include "QxCWriteThroughCacheGuard.h"
#include "QxNContainerPaths.h"
#include "daemon/PodmanServices.h"
#include "http/Clock.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <exception>
#include <filesystem>

namespace asio = boost::asio;
using QxNContainer::QxCContainer;
using QxNHttp::Problem;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNJson::json;

namespace {

constexpr std::chrono::milliseconds FirstQuestions{100};
constexpr std::chrono::milliseconds TimeForMessages{
    200};  ///< between an end and the library's message about it
constexpr std::chrono::seconds KillPause{1};
constexpr std::chrono::seconds TimeForTcp{10};  ///< within which a second service that ends was never sound
constexpr const char* AskedBefore = "it has not answered the question before";
constexpr const char* Disabled = "The container service is disabled; enable it, then start it.";
constexpr const char* Unwritable =
    "The settings cannot be written; is the configuration drive mounted and writable?";
constexpr const char* Enabled = "The service has been enabled and can be started.";
constexpr unsigned HighestPort = 65535;

std::string WhyNotInitialised(const QxCContainer& service) {
    std::string reason;
    if (!service.HasValidUserStorage(&reason)) {
        return reason + "; mount it, then enable and start the service";
    }
    if (!service.IsContainerServiceEnabled(false)) {
        return Disabled;
    }
    return "This board cannot run containers; the check and the log file say why.";
}

/// The library's own thread does so too, but an exception there would end the process.
/// @throws std::filesystem::filesystem_error
void LookAtWhatPodmanNeeds(unsigned tcpPort) {
    namespace fs = std::filesystem;
    fs::create_directories(fs::path(QxNContainer::QxNContainerPaths::PODMAN_SOCKET).parent_path());
    const fs::path certificates = QxNContainer::QxNContainerPaths::CONTAINER_CERTS_DIR;
    if (tcpPort == 0 || (fs::exists(certificates / "ca.crt") && fs::exists(certificates / "server.crt") &&
                         fs::exists(certificates / "server.key"))) {
        return;
    }
    if (fs::is_directory(certificates)) {
        const fs::directory_iterator readable(certificates);
    }
}

/// @return whether the library has written its settings; it has them in mind either way
template <typename Change>
bool IsWritten(Change change) {
    try {
        return change();
    } catch (const std::filesystem::filesystem_error&) {
        return false;
    }
}

/// @param undo  makes what cannot be written as if nobody had wanted it
/// @return whether the library has written its settings
template <typename Change, typename Undo>
bool IsWrittenOrUndone(Change change, Undo undo) {
    const bool isWritten = IsWritten(change);
    if (!isWritten) {
        IsWritten(undo);
    }
    return isWritten;
}

json TimeOrNull(const std::optional<std::chrono::system_clock::time_point>& time) {
    return time ? json(QxNHttp::TimeText(*time)) : json(nullptr);
}

const char* TextOf(RestartPolicy::Rule rule) {
    switch (rule) {
        case RestartPolicy::Rule::Never:
            return "never";
        case RestartPolicy::Rule::OnFailure:
            return "on-failure";
        case RestartPolicy::Rule::Always:
            break;
    }
    return "always";
}

}  // namespace

ServiceKeeper::ServiceKeeper(asio::io_context& io, const Options& options,
                             const ServiceManager& serviceManager)
    : _io(io),
      _options(options),
      _serviceManager(serviceManager),
      _policy(options.restart),
      _answered(io.get_executor()),
      _wake(io.get_executor()),
      _pause(io) {}

ServiceKeeper::~ServiceKeeper() {
    _asking.join();
    _control.join();
}

Task<void> ServiceKeeper::Begin(std::function<void(QxCContainer&)> prepare) {
    _service = co_await OnControlThread([&] {
        QxCContainer& service = QxCContainer::GetInstance();
        prepare(service);
        _isWanted = service.IsContainerServiceEnabled(false);
        _settings = service.GetContainerServiceUserSettings();
        return &service;
    });
    asio::co_spawn(_io, Watch(), asio::detached);
    if (const auto interval = _serviceManager.WatchdogInterval()) {
        asio::co_spawn(_io, FeedWatchdog(*interval / 2), asio::detached);
    }
}

// --- What people ask for ---

void ServiceKeeper::CheckIdle() const {
    if (IsBusy()) {
        throw Problem(Status::conflict, std::string("The service is just ") + TextOf(_state) +
                                            "; try again when that is done.");
    }
}

Task<void> ServiceKeeper::Start() {
    CheckIdle();
    if (_state == State::Running) {
        co_return;
    }
    if (_isStarted && !_isWanted) {
        // Before a start ends what was started before: containers run on without Podman's service.
        throw Problem(Status::conflict, Disabled);
    }
    _policy.Reset();
    _nextRestart.reset();
    _pause.cancel();
    co_await StartLibrary(_isStarted);
    if (_state != State::Running) {
        throw Problem(Status::conflict, _problem.empty() ? "Somebody stopped the service." : _problem);
    }
}

Task<void> ServiceKeeper::StartWithDaemon() {
    co_await StartLibrary(false);
    if (_state == State::Failed && _options.restart.rule == RestartPolicy::Rule::Always && _isWanted) {
        co_await HandleLoss(_problem, false);
    }
}

Task<void> ServiceKeeper::Stop() {
    // A start may hang for as long as its deadline; it is left where it is.
    if (_state != State::Starting) {
        CheckIdle();
    }
    _policy.Reset();
    _nextRestart.reset();
    Enter(State::Stopping);
    _pause.cancel();
    co_await StopLibrary();
    Enter(State::Stopped, "Somebody stopped the service.");
}

Task<void> ServiceKeeper::Shutdown() {
    _isEnding = true;
    _nextRestart.reset();
    Enter(State::Stopping);
    _pause.cancel();
    // Also behind a start that is just going on: the control thread does one after the other.
    co_await StopLibrary();
    Enter(State::Stopped);
}

Task<void> ServiceKeeper::Enable(bool isEnabled) {
    const bool isWritten = co_await OnControlThread([this, isEnabled] {
        const auto change = [this](bool enable) {
            return enable ? _service->EnableContainerService() : _service->DisableContainerService();
        };
        const bool before = _service->IsContainerServiceEnabled(false);
        const bool isDone =
            IsWrittenOrUndone([&] { return change(isEnabled); }, [&] { return change(before); });
        _isWanted = isDone ? isEnabled : _isWanted.load();
        return isDone;
    });
    if (!isWritten) {
        throw Problem(Status::internal_server_error, Unwritable);
    }
    if (isEnabled && _state == State::Failed && _problem == Disabled) {
        Enter(State::Stopped, Enabled);
    }
    if (!isEnabled && _state == State::Waiting) {
        _pause.cancel();  // there is nothing to wait for any more
    }
}

Task<void> ServiceKeeper::ChangeSettings(std::optional<unsigned> tcpPort, std::optional<unsigned> cores) {
    CheckIdle();  // the library's own thread reads them while it starts Podman
    if (tcpPort && (*tcpPort > HighestPort || *tcpPort == 80 || *tcpPort == 111)) {
        throw Problem(Status::bad_request,
                      "The TCP port must be a number from 0 to 65535, but not 80 or 111.");
    }
    QxCCTESettings::QxSUserSettings settings;
    const bool isWritten = co_await OnControlThread([&] {
        const auto before = _service->GetContainerServiceUserSettings();
        settings = before;
        settings.tcpPort = tcpPort.value_or(settings.tcpPort);
        settings.coresNum = cores.value_or(settings.coresNum);
        const unsigned most = _service->GetMaxAllowedCpuCoreCount();
        if (settings.coresNum > most) {
            throw Problem(Status::bad_request,
                          "Containers can get at most " + std::to_string(most) + " cores of this board.");
        }
        return IsWrittenOrUndone([&] { return _service->SetContainerServiceUserSettings(settings); },
                                 [&] { return _service->SetContainerServiceUserSettings(before); });
    });
    if (!isWritten) {
        throw Problem(Status::internal_server_error, Unwritable);
    }
    _settings = settings;
}

void ServiceKeeper::FailureReported() {
    _failureReported = true;
    AskSoon();
}

// --- The library's life ---

Task<void> ServiceKeeper::StartLibrary(bool isRestart) {
    const unsigned start = ++_starts;
    _isTcpUnsound = false;
    Enter(State::Starting);
    if (isRestart) {
        co_await StopLibrary();
        if (!IsStarting(start)) {
            co_return;
        }
    }
    QxCCTESettings::QxSUserSettings settings;
    const std::string problem = co_await OnControlThread([&] {
        std::string failure;
        try {
            failure = PrepareAndStart(isRestart);
        } catch (const std::exception& error) {
            failure = std::string("The board's file system fails: ") + error.what();
        }
        if (!_isStarted) {
            Leftovers::Unmark();
        }
        settings = _service->GetContainerServiceUserSettings();
        return failure;
    });
    _settings = settings;
    if (!IsStarting(start)) {
        co_return;  // somebody stopped the service meanwhile
    }
    if (problem.empty()) {
        co_await AwaitFirstAnswer(start);
    } else {
        Fail(problem);
    }
    if (_state == State::Failed && start == _starts && _isStarted && !_isWanted) {
        _policy.Lost(Clock::now(), _problem, false);
        co_await StopDisabled();
    }
}

/// On the control thread.
/// @return why the service cannot be started; empty when it is
std::string ServiceKeeper::PrepareAndStart(bool isRestart) {
    for (const std::string& found : _leftovers.Clear(_options.termGrace)) {
        QxCRTE_LOG_Impl(RteLogLevel::WarningNotify, "Quolex Container Host: %s", found.c_str());
    }
    // The settings of the file, as the library takes them where it looks at the board; a restart goes on with what it has.
    const bool isRepeated = _isInitialised && isRestart && _isWanted;
    const bool isEnabled = _service->IsContainerServiceEnabled(!isRepeated);
    _isWanted = _isWanted || isEnabled;
    TakeTcpPort();
    if (!_isInitialised) {
        // The library switches itself off where the board is not ready, such as before a drive is mounted.
        if (_options.restart.rule == RestartPolicy::Rule::Always && _isWanted && !isEnabled &&
            !IsWritten([this] { return _service->EnableContainerService(); })) {
            return Unwritable;
        }
        if (!_service->init()) {
            return WhyNotInitialised(*_service);
        }
        _isInitialised = true;
    } else {
        // init() once more would mount the plugins a second time and run their commands again.
        if (!isRepeated && !_service->IsContainerSystem()) {
            return WhyNotInitialised(*_service);
        }
        if (!_service->AssignCpuCores()) {
            return "The cores cannot be given to the containers; the check and the log file say why.";
        }
    }
    TakeTcpPort();  // the library may have read the file once more
    // From here on, whatever fails: the containers have their cores, and Podman may be there.
    _isStarted = true;
    LookAtWhatPodmanNeeds(_tcpPort);
    return _service->Start() ? std::string() : "The thread that watches Podman cannot be created.";
}

void ServiceKeeper::TakeTcpPort() {
    _tcpPort = _service->GetContainerServiceUserSettings().tcpPort;
    Leftovers::Mark(_tcpPort);
}

Task<void> ServiceKeeper::StopLibrary() {
    const auto stopping = std::make_shared<Stopping>();
    asio::co_spawn(_io, KillWhatHangs(stopping), asio::detached);
    co_await OnControlThread([this] {
        if (_isStarted) {
            try {
                _service->Stop();
            } catch (const std::exception& error) {
                // The settings come after the containers and before the disk.
                QxCRTE_LOG_Impl(RteLogLevel::WarningNotify,
                                "Quolex Container Host: The state cannot be kept in the settings: %s",
                                error.what());
                QxNContainer::QxCWriteThroughCacheGuard::ForceRestoreWriteBackMode();
            }
            _isStarted = false;
            // The library does not wait for long for a service that it has not begun to watch.
            EndPodmanServices();
            Leftovers::Unmark();
        }
    });
    _isAnswering = false;
    _startedAt.reset();
}

/// A Podman that hangs does not hear the library's SIGTERM, and the library waits for its end.
Task<void> ServiceKeeper::KillWhatHangs(std::weak_ptr<Stopping> stopping) {
    asio::steady_timer timer(_io, _options.termGrace);
    co_await timer.async_wait(asio::use_awaitable);
    // More than once: the kernel's list of children may miss one while another ends.
    while (!stopping.expired()) {
        KillPodmanServices();
        timer.expires_after(KillPause);
        co_await timer.async_wait(asio::use_awaitable);
    }
}

Task<void> ServiceKeeper::AwaitFirstAnswer(unsigned start) {
    const auto end = std::chrono::steady_clock::now() + _options.startDeadline;
    _failureReported = false;
    Answer answer;
    while (IsStarting(start) && std::chrono::steady_clock::now() < end) {
        answer = co_await Ask();
        if (!IsStarting(start)) {
            co_return;
        }
        if (_failureReported && CountPodmanServices() == 0) {
            Fail("Podman could not be started; the messages say why.");
            co_return;
        }
        if (answer.isGood) {
            _startedAt = Clock::now();
            _policy.Running(*_startedAt);
            Enter(State::Running);
            for (QxNSupport::UniqueFd& process : OpenPodmanServices()) {
                asio::co_spawn(_io, AwaitEndOf(std::move(process)), asio::detached);
            }
            co_return;
        }
        co_await Pause(FirstQuestions);
    }
    if (IsStarting(start)) {
        Fail("Podman has not answered since the start: " + answer.problem);
    }
}

// --- Watching ---

/// The questions would notice it too, but later.
Task<void> ServiceKeeper::AwaitEndOf(QxNSupport::UniqueFd process) {
    asio::posix::stream_descriptor descriptor(_io, process.Release());
    boost::system::error_code ignored;
    co_await descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                   asio::redirect_error(asio::use_awaitable, ignored));
    AskSoon();
}

Task<ServiceKeeper::Answer> ServiceKeeper::Ask() {
    if (_isAwaited) {
        co_await _answered.Wait();
        co_return _answer;
    }
    if (_isAsking) {
        co_return Answer{false, AskedBefore};
    }
    _isAsking = true;
    _isAwaited = true;
    _askedAt = Clock::now();
    const bool wantsVersion = _podmanVersion.empty();
    auto question = [this, wantsVersion] {
        PodmanResponse said;
        try {
            said = _service->ExecutePodmanRequest(wantsVersion ? "/libpod/version" : "/libpod/_ping",
                                                  QxCCurlHandler::Get, {}, {}, false);
        } catch (const std::exception&) {
            said.httpCode = 0;
        }
        asio::post(_io, [this] { _isAsking = false; });
        return said;
    };
    const auto response = co_await QxNHttp::InBackgroundWithin(_asking, _options.deadline, question);
    _isAwaited = false;
    Answer answer;
    if (!response) {
        answer.problem = "it has not answered within " + std::to_string(_options.deadline.count()) + " ms";
    } else if (response->httpCode == 0) {
        answer.problem = "nobody listens on its socket";
    } else if (response->httpCode != 200) {
        answer.problem = "it answered " + std::to_string(response->httpCode);
    } else {
        answer.isGood = true;
        const json version = wantsVersion ? json::parse(response->body) : json();
        if (version.contains("Version") && version["Version"].is_string()) {
            _podmanVersion = version["Version"].get<std::string>();
        }
    }
    _isAnswering = answer.isGood;
    if (answer.isGood) {
        _failureReported = false;
    }
    _answer = answer;
    _answered.Notify();
    co_return answer;
}

Task<void> ServiceKeeper::Watch() {
    using namespace std::chrono;
    while (!_isEnding) {
        // Nothing wakes up the daemon while there is nothing to watch.
        if (_state == State::Running) {
            const auto timer = std::make_shared<asio::steady_timer>(_io, _options.interval);
            timer->async_wait([this, timer](const boost::system::error_code& error) {
                if (!error) {
                    _wake.Notify();
                }
            });
            co_await _wake.Wait();
            timer->cancel();
        } else {
            co_await _wake.Wait();
        }
        if (_state != State::Running) {
            continue;
        }
        const Answer answer = co_await Ask();
        if (_state != State::Running) {
            continue;
        }
        if (!answer.isGood) {
            co_await HandleLoss("Podman is gone: " + answer.problem, true);
        } else if (!HasTcpService() && !_isTcpUnsound) {
            co_await HandleLossOfTcp();
        }
    }
}

bool ServiceKeeper::HasTcpService() const {
    constexpr int BothServices = 2;
    return _tcpPort == 0 || CountPodmanServices() >= BothServices;
}

/// A second service that ends at once would do so after every restart, at which all containers are stopped.
Task<void> ServiceKeeper::HandleLossOfTcp() {
    // Twice: the kernel's list of children may miss one while another ends.
    co_await Pause(TimeForMessages);
    if (HasTcpService() || _state != State::Running) {
        co_return;
    }
    const std::string cause = "Podman's service on TCP port " + std::to_string(_tcpPort) + " has ended";
    if (Clock::now() - *_startedAt >= TimeForTcp) {
        co_await HandleLoss(cause, true);
    } else {
        _isTcpUnsound = true;
        Enter(State::Running,
              cause + " right after its start; the messages and the check of the certificates say why.");
    }
}

Task<std::string> ServiceKeeper::AskNow() {
    const std::string noAnswer = "Podman does not answer: ";
    if (_state != State::Running && _state != State::Failed) {
        co_return _isAnswering ? std::string()
        : _problem.empty()     ? std::string("the service does not run")
                               : _problem;
    }
    if (_isAsking && !_isAwaited) {
        co_return noAnswer + AskedBefore;
    }
    if (!_isAwaited) {
        // On its own: whoever wanted to know may go away meanwhile.
        asio::co_spawn(_io, AskForOthers(), asio::detached);
    }
    co_await _answered.Wait();
    if (!_answer.isGood) {
        AskSoon();
    }
    co_return _answer.isGood ? std::string() : noAnswer + _answer.problem;
}

Task<void> ServiceKeeper::AskForOthers() { co_await Ask(); }

Task<void> ServiceKeeper::HandleLoss(std::string cause, bool hasRun) {
    for (;;) {
        std::fprintf(stderr, "qxcontainerd: %s\n", cause.c_str());
        const bool isLimit = _policy.InARow() >= _policy.Rules().limit;
        const auto delay = _policy.Lost(Clock::now(), cause, hasRun);
        if (_isWanted) {
            if (!delay) {
                Fail(cause + (cause.ends_with('.') ? "" : ".") +
                     (isLimit ? " After so many restarts in a row it is not started again"
                              : " By the rules it is not started again") +
                     "; start the service by hand.");
                co_return;
            }
            Enter(State::Waiting, cause);
            _nextRestart = Clock::now() + *delay;
            co_await Pause(*delay);
            _nextRestart.reset();
            if (_state != State::Waiting || _isEnding) {
                co_return;  // somebody stopped or started the service meanwhile
            }
        }
        if (!_isWanted) {
            co_await StopDisabled();
            co_return;
        }
        ++_restarts;
        co_await StartLibrary(true);
        if (_state != State::Failed || (_problem == Disabled && !_isWanted)) {
            co_return;
        }
        cause = _problem;
        hasRun = true;
    }
}

Task<void> ServiceKeeper::StopDisabled() {
    Enter(State::Stopping);
    co_await StopLibrary();
    if (_isEnding) {
        co_return;
    }
    if (_isWanted) {
        Enter(State::Stopped, Enabled);  // again, meanwhile
    } else {
        Fail(Disabled);
    }
}

Task<void> ServiceKeeper::FeedWatchdog(std::chrono::microseconds interval) {
    for (;;) {
        _serviceManager.Tell("WATCHDOG=1");
        co_await asio::steady_timer(_io, interval).async_wait(asio::use_awaitable);
    }
}

Task<void> ServiceKeeper::Pause(std::chrono::steady_clock::duration time) {
    _pause.expires_after(time);
    boost::system::error_code ignored;
    co_await _pause.async_wait(asio::redirect_error(asio::use_awaitable, ignored));
}

void ServiceKeeper::Fail(const std::string& problem) { Enter(State::Failed, problem); }

void ServiceKeeper::Enter(State state, const std::string& problem) {
    _state = state;
    _isSettled = _isSettled || state != State::Starting;
    _problem = problem;
    _serviceManager.Tell(std::string("STATUS=Container service ") + TextOf(state) +
                         (problem.empty() ? "" : ": " + problem));
    std::printf("qxcontainerd: %s%s%s\n", TextOf(state), problem.empty() ? "" : ": ", problem.c_str());
    std::fflush(stdout);
    _wake.Notify();
}

const char* ServiceKeeper::TextOf(State state) {
    switch (state) {
        case State::Starting:
            return "starting";
        case State::Running:
            return "running";
        case State::Stopping:
            return "stopping";
        case State::Stopped:
            return "stopped";
        case State::Waiting:
            return "waiting";
        case State::Failed:
            break;
    }
    return "failed";
}

json ServiceKeeper::Describe() const {
    json history = json::array();
    for (const RestartPolicy::Loss& loss : _policy.History()) {
        history.push_back(json{{"time", QxNHttp::TimeText(loss.time)}, {"cause", loss.cause}});
    }
    json service = json::object();
    service["version"] = QX_DAEMON_VERSION;
    service["enabled"] = _service->IsContainerServiceEnabled(false);
    service["state"] = TextOf(_state);
    service["problem"] = _problem;
    service["startedAt"] = TimeOrNull(_startedAt);
    service["settings"] = json{{"tcpPort", _settings.tcpPort},
                               {"cores", _settings.coresNum},
                               {"maximumCores", _service->GetMaxAllowedCpuCoreCount()}};
    service["podman"] = json{{"answering", _isAnswering},
                             {"version", _podmanVersion},
                             {"askedAt", TimeOrNull(_askedAt)},
                             {"problem", _isAnswering ? "" : _problem}};
    service["restarts"] = json{{"policy", ::TextOf(_options.restart.rule)},
                               {"limit", _options.restart.limit},
                               {"inARow", _policy.InARow()},
                               {"nextAt", TimeOrNull(_nextRestart)},
                               {"history", history}};
    return service;
}
