#include "daemon/PodmanServices.h"

#include "support/UniqueFd.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
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

bool IsOurPodmanService(pid_t pid) {
    using namespace std::string_literals;
    const std::string directory = "/proc/" + std::to_string(pid);
    return ReadAll(directory + "/cmdline").find("\0system\0service\0"s) != std::string::npos &&
           ReadAll(directory + "/status").find("\nPPid:\t" + std::to_string(getpid()) + "\n") !=
               std::string::npos;
}

/// Calls the function with a descriptor of each, which stands for the process, whoever gets its number later.
/// @return for how many it returned true
template <typename Function>
int ForEachPodmanService(Function function) {
    int count = 0;
    for (const pid_t pid : Children()) {
        const QxNSupport::UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
        count += process.IsOpen() && IsOurPodmanService(pid) && function(process.Get()) ? 1 : 0;
    }
    return count;
}

}  // namespace

int KillPodmanServices() {
    return ForEachPodmanService(
        [](int process) { return syscall(SYS_pidfd_send_signal, process, SIGKILL, nullptr, 0) == 0; });
}

int EndPodmanServices() {
    return ForEachPodmanService([](int process) {
        siginfo_t end{};
        return syscall(SYS_pidfd_send_signal, process, SIGKILL, nullptr, 0) == 0 &&
               waitid(P_PIDFD, static_cast<id_t>(process), &end, WEXITED) == 0;
    });
}

int CountPodmanServices() {
    return ForEachPodmanService([](int) { return true; });
}
