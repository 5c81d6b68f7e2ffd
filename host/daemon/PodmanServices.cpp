#include "daemon/PodmanServices.h"

#include "QxNContainerPaths.h"
#include "support/ProcessEnd.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<pid_t> Children() {
    std::vector<pid_t> children;
    std::error_code error;
    for (fs::directory_iterator task("/proc/self/task", error), end; !error && task != end;
         task.increment(error)) {
        std::istringstream list(ReadAll(task->path().string() + "/children"));
        children.insert(children.end(), std::istream_iterator<pid_t>(list), {});
    }
    return children;
}

std::vector<pid_t> AllProcesses() {
    std::vector<pid_t> processes;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) {
            processes.push_back(std::stoi(name));
        }
    }
    return processes;
}

/// @return whether it is a `podman system service` and a child of that process
bool IsPodmanServiceOf(pid_t parent, pid_t pid) {
    using namespace std::string_literals;
    const std::string directory = "/proc/" + std::to_string(pid);
    return ReadAll(directory + "/cmdline").find("\0system\0service\0"s) != std::string::npos &&
           ReadAll(directory + "/status").find("\nPPid:\t" + std::to_string(parent) + "\n") !=
               std::string::npos;
}

/// @return whether its last argument is an address that the library gives to Podman
bool HasOurAddress(pid_t pid, const std::string& tcpPort) {
    using namespace std::string_literals;
    const std::string arguments = ReadAll("/proc/" + std::to_string(pid) + "/cmdline");
    return arguments.find("\0unix://"s + QxNContainer::QxNContainerPaths::PODMAN_SOCKET + "\0"s) !=
               std::string::npos ||
           arguments.find("\0tcp:0.0.0.0:"s + tcpPort + "\0"s) != std::string::npos;
}

/// @return a descriptor that stands for the process, whoever gets its number later; closed when there is none
QxNSupport::UniqueFd Open(pid_t pid) {
    return QxNSupport::UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

bool Send(int process, int signal) {
    return syscall(SYS_pidfd_send_signal, process, signal, nullptr, 0) == 0;
}

/// Calls the function with a descriptor of each.
/// @return for how many it returned true
template <typename Function>
int ForEachPodmanService(Function function) {
    const auto services = OpenPodmanServices();
    return static_cast<int>(std::count_if(services.begin(), services.end(),
                                          [&](const auto& service) { return function(service.Get()); }));
}

/// @return whether all of them ended in time
bool AwaitEnds(const std::vector<QxNSupport::UniqueFd>& processes, std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    return std::all_of(processes.begin(), processes.end(), [end](const QxNSupport::UniqueFd& process) {
        return QxNSupport::AwaitEnd(process.Get(), end);
    });
}

}  // namespace

std::vector<QxNSupport::UniqueFd> OpenPodmanServices() {
    std::vector<QxNSupport::UniqueFd> services;
    for (const pid_t pid : Children()) {
        QxNSupport::UniqueFd process = Open(pid);
        if (process.IsOpen() && IsPodmanServiceOf(getpid(), pid)) {
            services.push_back(std::move(process));
        }
    }
    return services;
}

int KillPodmanServices() {
    return ForEachPodmanService([](int process) { return Send(process, SIGKILL); });
}

int EndPodmanServices() {
    return ForEachPodmanService([](int process) {
        siginfo_t end{};
        return Send(process, SIGKILL) &&
               TEMP_FAILURE_RETRY(waitid(P_PIDFD, static_cast<id_t>(process), &end, WEXITED)) == 0;
    });
}

int CountPodmanServices() { return static_cast<int>(OpenPodmanServices().size()); }

int EndOrphanedPodmanServices(const std::string& tcpPort, std::chrono::milliseconds grace) {
    constexpr pid_t FirstProcess = 1;
    std::vector<QxNSupport::UniqueFd> orphans;
    for (const pid_t pid : AllProcesses()) {
        QxNSupport::UniqueFd process = Open(pid);
        if (process.IsOpen() && IsPodmanServiceOf(FirstProcess, pid) && HasOurAddress(pid, tcpPort) &&
            Send(process.Get(), SIGTERM)) {
            orphans.push_back(std::move(process));
        }
    }
    if (!AwaitEnds(orphans, grace)) {
        for (const QxNSupport::UniqueFd& orphan : orphans) {
            Send(orphan.Get(), SIGKILL);
        }
        AwaitEnds(orphans, grace);
    }
    return static_cast<int>(orphans.size());
}
