#include "ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

/// Takes a variable out of the environment.
std::string Take(const char* name) {
    const char* const value = getenv(name);
    std::string text = value == nullptr ? "" : value;
    unsetenv(name);
    return text;
}

}  // namespace

ServiceManager::ServiceManager() : _address(Take("NOTIFY_SOCKET")) {
    const std::string process = Take("WATCHDOG_PID");
    const std::string interval = Take("WATCHDOG_USEC");
    long long microseconds = 0;
    std::from_chars(interval.data(), interval.data() + interval.size(), microseconds);
    if (microseconds > 0 && (process.empty() || process == std::to_string(getpid()))) {
        _watchdog = std::chrono::microseconds(microseconds);
    }
}

void ServiceManager::Tell(const std::string& state) const {
    sockaddr_un address{};
    const bool isPath = _address.starts_with('/');
    const bool isAbstract = _address.starts_with('@');
    if ((!isPath && !isAbstract) || _address.size() >= sizeof(address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, _address.data(), _address.size());
    if (isAbstract) {
        address.sun_path[0] = '\0';
    }
    const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sender < 0) {
        return;
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + _address.size());
    TEMP_FAILURE_RETRY(sendto(sender, state.data(), state.size(), MSG_NOSIGNAL,
                              reinterpret_cast<sockaddr*>(&address), length));
    close(sender);
}
