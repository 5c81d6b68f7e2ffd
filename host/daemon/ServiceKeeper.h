#pragma once

#include "QxCCTESettings.h"
#include "QxNJson.h"
#include "daemon/Leftovers.h"
#include "daemon/RestartPolicy.h"
#include "daemon/ServiceManager.h"
#include "http/Background.h"
#include "http/Message.h"
#include "support/UniqueFd.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace QxNContainer {
class QxCContainer;
}

/// Takes the container service through its life and watches Podman.
///
/// The library reports that Podman ended and leaves the rest to its host: here a policy decides, and a question in
/// regular intervals notices a Podman that hangs as well as one that is gone. What somebody stopped stays stopped.
///
/// Everything belongs to the thread of the io_context; the library's control operations run on a thread of their own,
/// one after the other.
class ServiceKeeper {
public:
    struct Options {
        RestartPolicy::Options restart;
        std::chrono::milliseconds interval{10000};  ///< between two questions to Podman
        std::chrono::milliseconds deadline{5000};   ///< for an answer
        std::chrono::milliseconds startDeadline{
            120000};  ///< for the first one: containers start before Podman does
        std::chrono::milliseconds termGrace{10000};  ///< from a stop until Podman services are killed
    };

    ServiceKeeper(boost::asio::io_context& io, const Options& options, const ServiceManager& serviceManager);
    ServiceKeeper(const ServiceKeeper&) = delete;
    ServiceKeeper& operator=(const ServiceKeeper&) = delete;
    ~ServiceKeeper();

    /// Makes the library's object, applies settings and begins to watch. To be called once, before all others.
    /// @param prepare  runs on the control thread before anything else
    QxNHttp::Task<void> Begin(std::function<void(QxNContainer::QxCContainer&)> prepare);

    /// Starts the service and waits until Podman answers; a service that runs already is fine.
    /// @throws Problem conflict with the reason when that is not possible
    QxNHttp::Task<void> Start();
    /// The start that comes with the daemon, at which a failure may be for the policy to mend.
    QxNHttp::Task<void> StartWithDaemon();
    /// Stops the service and all containers; no policy starts it again.
    QxNHttp::Task<void> Stop();
    /// Stops the service for the end of the daemon, whatever it is just doing.
    QxNHttp::Task<void> Shutdown();
    /// @throws Problem when the settings cannot be written
    QxNHttp::Task<void> Enable(bool isEnabled);
    /// @throws Problem when they are refused or cannot be written
    QxNHttp::Task<void> ChangeSettings(std::optional<unsigned> tcpPort, std::optional<unsigned> cores);

    /// Asks Podman at once, because something happened.
    void AskSoon() { _wake.Notify(); }
    /// A message of the library says that something failed.
    void FailureReported();

    /// Runs something on the control thread.
    template <typename Function>
    auto OnControlThread(Function function) {
        return QxNHttp::InBackground(_control, std::move(function));
    }
    /// The same for what need not be done: a start may hold that thread for as long as a plugin's command takes.
    /// @param function  owns what it uses
    /// @throws Problem after the deadline
    template <typename Function>
    QxNHttp::Task<std::invoke_result_t<Function>> OnControlThreadWithin(
        std::chrono::steady_clock::duration deadline, Function function) {
        auto result = co_await QxNHttp::InBackgroundWithin(_control, deadline, std::move(function));
        if (!result) {
            throw QxNHttp::Problem(QxNHttp::Status::service_unavailable,
                                   IsBusy() ? std::string("The service is just ") + TextOf(_state) +
                                                  ", which takes its time; try again when that is done."
                                            : "The board takes its time for something else; try again soon.");
        }
        co_return std::move(*result);
    }

    /// @return the service as the interface shows it
    QxNJson::json Describe() const;
    const QxCCTESettings::QxSUserSettings& Settings() const { return _settings; }
    /// @return whether Podman answered the last question
    bool IsAnswering() const { return _isAnswering; }
    /// @return whether Podman was asked, and did not answer the last time
    bool IsLost() const { return _askedAt && !_isAnswering; }
    /// Asks Podman now, within the deadline for answers, where the service runs or failed.
    /// @return what is wrong; empty when Podman answers
    QxNHttp::Task<std::string> AskNow();
    /// @return the TCP port of the last start, which may not be that of the settings any more; 0 for none
    unsigned TcpPort() const { return _tcpPort; }
    /// @return whether the second service, on that port, runs; true when there is to be none
    bool HasTcpService() const;
    std::string Version() const { return _podmanVersion; }
    /// @return whether the service is just starting or stopping
    bool IsBusy() const { return _state == State::Starting || _state == State::Stopping; }
    /// @return whether the first start has come to something, good or bad
    bool IsSettled() const { return _isSettled; }
    /// @return why the service does not run; empty when it does
    const std::string& TheProblem() const { return _problem; }
    unsigned Restarts() const { return _restarts; }
    QxNContainer::QxCContainer& Service() { return *_service; }

private:
    using Clock = std::chrono::system_clock;
    enum class State { Starting, Running, Stopping, Stopped, Waiting, Failed };
    struct Answer {
        bool isGood = false;
        std::string problem;
    };

    static const char* TextOf(State state);
    void CheckIdle() const;
    QxNHttp::Task<void> StartLibrary(bool isRestart);
    QxNHttp::Task<void> StopLibrary();
    struct Stopping {};  ///< lives while the library's Stop() is going on
    QxNHttp::Task<void> KillWhatHangs(std::weak_ptr<Stopping> stopping);
    std::string PrepareAndStart(bool isRestart);
    void TakeTcpPort();
    QxNHttp::Task<void> AwaitFirstAnswer(unsigned start);
    QxNHttp::Task<Answer> Ask();
    QxNHttp::Task<void> AskForOthers();
    QxNHttp::Task<void> Watch();
    QxNHttp::Task<void> AwaitEndOf(QxNSupport::UniqueFd process);
    QxNHttp::Task<void> HandleLoss(std::string cause, bool hasRun);
    QxNHttp::Task<void> HandleLossOfTcp();
    /// Ends what is left of a service that is lost and disabled: no rule starts it again.
    QxNHttp::Task<void> StopDisabled();
    QxNHttp::Task<void> FeedWatchdog(std::chrono::microseconds interval);
    QxNHttp::Task<void> Pause(std::chrono::steady_clock::duration time);
    /// @return whether nobody has stopped or started the service since that start began
    bool IsStarting(unsigned start) const {
        return _state == State::Starting && start == _starts && !_isEnding;
    }
    void Fail(const std::string& problem);
    void Enter(State state, const std::string& problem = {});

    boost::asio::io_context& _io;
    const Options _options;
    const ServiceManager& _serviceManager;
    Leftovers _leftovers;  ///< used on the control thread
    RestartPolicy _policy;
    boost::asio::thread_pool _control{1};
    boost::asio::thread_pool _asking{1};
    QxNHttp::Event _answered;
    QxNHttp::Event _wake;
    boost::asio::steady_timer _pause;
    QxNContainer::QxCContainer* _service = nullptr;
    QxCCTESettings::QxSUserSettings _settings;  ///< as the control thread read or wrote them last

    State _state = State::Stopped;
    std::string _problem;
    bool _isEnding = false;
    bool _isSettled = false;
    bool _isInitialised = false;  ///< init() succeeded in this process: not to be called again
    bool _isStarted = false;      ///< there is something for Stop() to put back
    bool _isAsking = false;       ///< a question is still under way, perhaps for ever
    bool _isAwaited = false;      ///< and its deadline is not over
    Answer _answer;               ///< to the last question
    bool _isAnswering = false;
    bool _failureReported = false;      ///< since the last good answer
    std::atomic<unsigned> _tcpPort{0};  ///< of the last start; 0 for none
    bool _isTcpUnsound = false;         ///< the second service ended right after its start
    unsigned _starts = 0;
    /// Whether people want it enabled, whatever the library makes of it where the board is not ready.
    std::atomic<bool> _isWanted{false};
    unsigned _restarts = 0;
    std::string _podmanVersion;
    std::optional<Clock::time_point> _startedAt;
    std::optional<Clock::time_point> _askedAt;
    std::optional<Clock::time_point> _nextRestart;
};
