// The daemon: takes the container library through its life and makes it usable over HTTP.

#include "QxCContainer.h"
#include "QxCErrorList.h"
#include "api/Interface.h"
#include "daemon/MessageFollower.h"
#include "daemon/Options.h"
#include "daemon/ServiceKeeper.h"
#include "daemon/ServiceManager.h"
#include "http/Server.h"
#include "logs/LogHub.h"

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>

namespace asio = boost::asio;
using QxNHttp::Task;

namespace {

/// How the daemon says what happened; documented in --help.
enum ExitCode : int {
    Stopped = 0,
    NoAddress = 3,
    SettingsNotWritten = 5,
    BoardError = 6,
};

constexpr size_t Workers = 4;
constexpr size_t PodmanRequests = 8;
constexpr size_t ComposeOperations = 4;
constexpr size_t LogStreams = 32;
constexpr std::chrono::milliseconds ReadyCheck{50};
constexpr std::chrono::milliseconds TimeForLogs{2000};
constexpr std::chrono::milliseconds TimeForFarewells{50};
constexpr std::chrono::seconds TimeAskedFor{60};

void Tell(const std::string& text) {
    std::printf("qxcontainerd: %s\n", text.c_str());
    std::fflush(stdout);
}

/// @return whether a message is the library's word that a Podman service could not be started, or failed
bool IsPodmansEnd(const QxNJson::json& message) {
    const std::string text = TextMember(message, "text");
    const auto tells = [&](const char* words) { return text.find(words) != std::string::npos; };
    return TextMember(message, "source") == "Quolex Container Runtime" &&
           NumberMember(message, "severity") == QxNSeverity::Error &&
           (tells("Podman service") || tells("Invalid port number"));
}

/// Everything that lives as long as the daemon serves.
class Daemon {
public:
    Daemon(const Options& options, const ServiceManager& serviceManager, QxNHttp::Tokens& tokens)
        : _options(options),
          _serviceManager(serviceManager),
          _tokens(tokens),
          _keeper(_io, options.keeper, serviceManager),
          _messages(_io, options.messages),
          _signals(_io, SIGTERM, SIGINT) {}

    ExitCode Run() {
        asio::co_spawn(_io, Live(), [this](std::exception_ptr error) {
            _failure = std::move(error);
            _io.stop();
        });
        _io.run();
        _workers.join();
        _compose.join();
        _podman.join();
        QxNHttp::DiskThread().join();
        if (_failure) {
            std::rethrow_exception(_failure);
        }
        return _exitCode;
    }

private:
    Task<void> Live() {
        co_await _keeper.Begin([&](QxNContainer::QxCContainer& service) {
            _logs.emplace(service);
            _areSettingsWritten = ApplySettings(service);
        });
        if (!_areSettingsWritten) {
            Tell("the settings cannot be written; is the configuration drive mounted and writable?");
            _exitCode = SettingsNotWritten;
            co_return;
        }
        _ground.emplace(Ground{_keeper, _messages, *_logs, _streams, _tokens, _workers, _podman, _compose,
                               _options.server.page, _options.server.certificate, _options.server.key,
                               _options.largestUpload});
        _router = MakeRouter(*_ground);
        // Before anything is started: an address that cannot be had must leave nothing behind.
        std::optional<QxNHttp::Server> server;
        try {
            server.emplace(_io, _options.server, _router, _tokens);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "qxcontainerd: %s\n", error.what());
            _exitCode = NoAddress;
        }
        if (!server) {
            co_return;
        }
        for (const std::string& url : server->Urls()) {
            Tell("serving " + url);
        }
        asio::co_spawn(_io, _messages.Run(), asio::detached);
        asio::co_spawn(_io, HeedMessages(), asio::detached);
        asio::co_spawn(_io, StartService(), asio::detached);

        const int signal = co_await _signals.async_wait(asio::use_awaitable);
        _serviceManager.Tell("STOPPING=1\nSTATUS=Stopping containers");
        const auto stopping = std::make_shared<Phase>();
        asio::co_spawn(_io, AskForTime(stopping), asio::detached);
        Tell(signal == SIGINT ? "interrupted, stopping" : "asked to stop, stopping");
        // Who watches a log is told why it ends; a Podman that hangs may take longer than they are waited for.
        auto endLogs = [this] {
            _logs->Stop();
            return true;
        };
        co_await QxNHttp::InBackgroundWithin(_workers, TimeForLogs, endLogs);
        asio::steady_timer farewells(_io, TimeForFarewells);
        co_await farewells.async_wait(asio::use_awaitable);
        server->Stop();
        co_await _keeper.Shutdown();
        // Only now: without Podman no stream waits for anything any more. And not here: what a stream still sends fails
        // on this thread.
        co_await QxNHttp::InBackground(_workers, [this] {
            _streams.Stop();
            _logs->Stop();
        });
        Tell("stopped");
    }

    bool ApplySettings(QxNContainer::QxCContainer& service) const {
        if (_options.tcpPort || _options.cores) {
            auto settings = service.GetContainerServiceUserSettings();
            settings.tcpPort = _options.tcpPort.value_or(settings.tcpPort);
            settings.coresNum = _options.cores.value_or(settings.coresNum);
            if (!service.SetContainerServiceUserSettings(settings)) {
                return false;
            }
        }
        return !_options.enable || service.EnableContainerService();
    }

    /// The library says by a message that Podman ended, and how.
    Task<void> HeedMessages() {
        std::uint64_t last = 0;
        for (;;) {
            for (const MessageFollower::Message& message : _messages.Messages()) {
                if (message.number > last && IsPodmansEnd(message.content)) {
                    _keeper.FailureReported();
                }
                last = std::max(last, message.number);
            }
            co_await _messages.WaitForMore();
        }
    }

    struct Phase {};  ///< lives while something goes on

    /// The service manager gives a bounded time, which containers know nothing of.
    Task<void> AskForTime(std::weak_ptr<Phase> phase) {
        asio::steady_timer timer(_io);
        while (!phase.expired()) {
            _serviceManager.Tell("EXTEND_TIMEOUT_USEC=" +
                                 std::to_string(std::chrono::microseconds(TimeAskedFor).count()));
            timer.expires_after(TimeAskedFor / 2);
            co_await timer.async_wait(asio::use_awaitable);
        }
    }

    Task<void> StartService() {
        // A failure is no reason to end: somebody can look and mend it.
        const auto starting = std::make_shared<Phase>();
        asio::co_spawn(_io, AskForTime(starting), asio::detached);
        asio::steady_timer ready(_io);
        asio::co_spawn(_io, _keeper.StartWithDaemon(), asio::detached);
        while (!_keeper.IsSettled()) {
            ready.expires_after(ReadyCheck);
            co_await ready.async_wait(asio::use_awaitable);
        }
        _serviceManager.Tell("READY=1");
    }

    const Options& _options;
    const ServiceManager& _serviceManager;
    // What requests use is there until the last of them has gone, with the threads and the io_context.
    QxNHttp::Tokens& _tokens;
    std::optional<LogHub> _logs;
    StreamThreads _streams{LogStreams};
    std::optional<Ground> _ground;
    QxNHttp::Router _router;
    asio::io_context _io{1};
    asio::thread_pool _workers{Workers};
    asio::thread_pool _podman{PodmanRequests};
    asio::thread_pool _compose{ComposeOperations};
    ServiceKeeper _keeper;
    MessageFollower _messages;
    asio::signal_set _signals;
    std::exception_ptr _failure;
    ExitCode _exitCode = Stopped;
    bool _areSettingsWritten = true;
};

}  // namespace

int main(int argc, char** argv) {
    try {
        Options options;
        if (const auto exitCode = ReadOptions(argc, argv, options)) {
            return *exitCode;
        }
        std::optional<QxNHttp::Tokens> tokens;
        try {
            tokens.emplace(options.tokens);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "qxcontainerd: %s\n", error.what());
            return NoAddress;
        }
        const ServiceManager serviceManager;
        Daemon daemon(options, serviceManager, *tokens);
        return daemon.Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qxcontainerd: %s\n", error.what());
        return BoardError;
    }
}
