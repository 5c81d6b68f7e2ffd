// The smallest host of the container library: takes it through its life and stays until it is told to stop.

#include "LogServer.h"
#include "QxCContainer.h"
#include "ServiceManager.h"
#include "StopSignal.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>

namespace {

using QxNContainer::QxCContainer;

/// How the daemon says what happened; documented in --help.
enum ExitCode : int {
    Stopped = 0,
    BadUsage = 2,
    NotInitialised = 3,
    NotStarted = 4,
    SettingsNotWritten = 5,
    BoardError = 6,
};

constexpr const char* Help = R"(
Runs the container service of the board until SIGTERM or SIGINT.

Exit codes:
  0  the service was started and stopped in order
  2  wrong options
  3  the board cannot run containers: the service is disabled, there is no usable user storage, the firmware
     image cannot be mounted, or too many cores are configured; the log file says which
  4  the service could not be started
  5  the settings could not be written
  6  an error of the board's file system that the library does not handle
)";

struct Options {
    bool enable = false;
    std::optional<unsigned int> port;
    std::optional<unsigned int> cores;
    std::optional<unsigned short> logPort;
};

void Tell(const char* text) {
    std::printf("qxcontainerd: %s\n", text);
    std::fflush(stdout);
}

bool ApplySettings(QxCContainer& service, const Options& options) {
    if (options.port || options.cores) {
        QxCCTESettings::QxSUserSettings settings = service.GetContainerServiceUserSettings();
        settings.tcpPort = options.port.value_or(settings.tcpPort);
        settings.coresNum = options.cores.value_or(settings.coresNum);
        if (!service.SetContainerServiceUserSettings(settings)) {
            return false;
        }
    }
    return !options.enable || service.EnableContainerService();
}

std::string WhyNotInitialised(const QxCContainer& service) {
    std::string reason;
    if (!service.HasValidUserStorage(&reason)) {
        return reason + "; mount it and start again with --enable";
    }
    if (!service.IsContainerServiceEnabled(false)) {
        return "the container service is disabled; start with --enable to switch it on";
    }
    return "this board cannot run containers; the log file says why";
}

ExitCode Run(const Options& options, const ServiceManager& serviceManager) {
    StopSignal stopSignal;
    QxCContainer& service = QxCContainer::GetInstance();
    if (!ApplySettings(service, options)) {
        Tell("the settings cannot be written; is the configuration drive mounted and writable?");
        return SettingsNotWritten;
    }
    if (!service.init()) {
        Tell(WhyNotInitialised(service).c_str());
        return NotInitialised;
    }
    if (stopSignal.HasArrived()) {
        service.Stop();
        Tell("told to stop before the start");
        return Stopped;
    }
    if (!service.Start()) {
        Tell("the container service cannot be started; the log file says why");
        return NotStarted;
    }
    std::optional<LogServer> logServer;
    if (options.logPort) {
        logServer.emplace(service, *options.logPort);
        Tell(("logs at ws://127.0.0.1:" + std::to_string(logServer->Port()) + "/logs/NAME").c_str());
    }
    serviceManager.Tell("READY=1\nSTATUS=Container service running");
    Tell("running");

    const int signal = stopSignal.Wait();
    serviceManager.Tell("STOPPING=1\nSTATUS=Stopping containers");
    Tell(signal == SIGINT ? "interrupted, stopping" : "asked to stop, stopping");
    logServer.reset();  // while Podman is still there
    service.Stop();
    Tell("stopped");
    return Stopped;
}

/// @return why a port cannot be used; empty when it can
std::string RefusePort(std::string& text) {
    unsigned int port = 0;
    if (!CLI::detail::lexical_cast(text, port) || port > 65535) {
        return "'" + text + "' is no port number";
    }
    return port == 80 || port == 111 ? "the container service starts nothing at all with port " + text
                                     : std::string();
}

ExitCode RunWithArguments(int argc, char** argv) {
    CLI::App app{Help};
    Options options;
    app.add_flag("--enable", options.enable, "Switch the container service on, also for later starts");
    app.add_option("--port", options.port,
                   "TCP port of Podman's REST service; 0 for none. Kept in the settings.")
        ->check(CLI::Validator(RefusePort, "PORT"));
    app.add_option("--cores", options.cores, "Number of CPU cores for containers. Kept in the settings.");
    app.add_option(
        "--log-port", options.logPort,
        "Serve the logs of containers to WebSocket clients of this machine on that TCP port; 0 takes a free "
        "one and tells which");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? Stopped : BadUsage;
    }
    return Run(options, ServiceManager());
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return RunWithArguments(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qxcontainerd: %s\n", error.what());
        return BoardError;
    }
}
