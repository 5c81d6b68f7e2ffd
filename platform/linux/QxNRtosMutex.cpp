#include "QxNRtosAbstraction.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace QxNRtosAbstraction {

// Made of a condition, whose waits with a time-out the thread sanitizer understands, unlike those of a mutex.
struct QxCMutex::Impl {
    std::string name;  ///< for whoever looks at the process with a debugger
    std::mutex mutex;  ///< guards `held`
    std::condition_variable released;
    bool held = false;
};

QxCMutex::QxCMutex(const char* name) : _impl(std::make_unique<Impl>()) {
    _impl->name = name != nullptr ? name : "";
}

QxCMutex::~QxCMutex() = default;

bool QxCMutex::lock(int timeoutMs) {
    const auto isFree = [this] { return !_impl->held; };
    std::unique_lock guard(_impl->mutex);
    if (timeoutMs < 0) {
        _impl->released.wait(guard, isFree);
    } else {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        if (!_impl->released.wait_until(guard, deadline, isFree)) {
            return false;
        }
    }
    _impl->held = true;
    return true;
}

void QxCMutex::unlock() {
    // Notified under the guard: whoever gets the mutex next may destroy it.
    const std::lock_guard guard(_impl->mutex);
    _impl->held = false;
    _impl->released.notify_one();
}

}  // namespace QxNRtosAbstraction
