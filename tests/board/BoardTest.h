#pragma once

#include "QxCContainer.h"
#include "QxNContainerPaths.h"

#include <gmock/gmock.h>
#include <sys/types.h>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/// Doing things on the board, and looking at it.
namespace OnBoard {

using namespace QxNContainer::QxNContainerPaths;

/// What a shell command did.
struct Outcome {
    int status;          ///< exit code, 128 + signal when it was killed
    std::string output;  ///< standard output and error
};

Outcome Shell(const std::string& command);
/// @return the output without the line feed at its end; the test fails when the command does
std::string Output(const std::string& command);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

/// @return the texts of the log file, without time and thread
std::vector<std::string> LogLines();
/// @return the messages handed to the message manager, as "severity text"
std::vector<std::string> Messages();

/// Writes the board's platform configuration; call it before the library is used.
void ConfigurePlatform(const std::string& ini);
/// Writes the settings file as another program would.
void WriteSettings(const std::string& json);
int StateInFile();

/// Waits until a condition holds, at most 60 seconds.
template <typename Condition>
bool Eventually(Condition condition) {
    for (int attempt = 0; attempt < 3000; ++attempt) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

/// @return whether the log gets to hold a line with that text
bool Logged(const std::string& text);

/// @return the answer of Podman's REST API on its Unix socket, waiting until there is a service
std::string AskPodman(const std::string& endpoint);
bool PodmanAnswers();

/// Makes the image "localhost/busybox:1".
void ImportBusybox();

/// @return the process ids whose command line holds the text
std::vector<pid_t> Processes(const std::string& text);
std::vector<int> Children();
std::vector<std::string> OpenDescriptors();

/// The CPU set of the containers, in whichever control group hierarchy this machine has.
std::string ContainerCpuSet();
/// Whether single threads can be moved into a CPU set (control groups version 1).
bool CanMoveThreads();

/// The suite's Podman, such as {5, 8}.
std::pair<int, int> PodmanVersion();

/// The host daemon as a child process.
class Daemon {
public:
    /// @param options   command line options
    /// @param variable  a variable "NAME=value" for its environment; empty for none
    explicit Daemon(const std::vector<std::string>& options, const std::string& variable = {});
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    pid_t Pid() const { return _pid; }
    void Signal(int signal) const;
    /// Waits for its end.
    /// @return exit code, 128 + signal when it was killed
    int Wait();
    /// Tells it to stop and waits for its end.
    int Stop();

private:
    pid_t _pid = -1;
};

}  // namespace OnBoard
