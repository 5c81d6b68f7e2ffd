#pragma once

#include <poll.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

namespace QxNSupport {

/// Waits for the end of a process, whatever signals come meanwhile.
/// @param process   process descriptor; a closed one stands for a process that does not end
/// @param deadline  when the waiting ends at the latest
/// @return whether it has ended
inline bool AwaitEnd(int process, std::chrono::steady_clock::time_point deadline) {
    using Milliseconds = std::chrono::milliseconds;
    constexpr Milliseconds::rep Most = std::numeric_limits<int>::max();
    while (true) {
        const auto left =
            std::chrono::ceil<Milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        pollfd ended{process, POLLIN, 0};
        const int count = poll(&ended, 1, static_cast<int>(std::clamp<Milliseconds::rep>(left, 0, Most)));
        if (count >= 0 || errno != EINTR) {
            return count == 1;
        }
    }
}

}  // namespace QxNSupport
