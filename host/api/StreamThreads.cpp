#include "api/StreamThreads.h"

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

void StreamThreads::Stop() {
    std::unique_lock lock(_mutex);
    _most = 0;
    _finished.wait(lock, [this] { return _running == 0; });
}

bool StreamThreads::Run(std::function<void()> stream) {
    {
        const std::lock_guard lock(_mutex);
        if (_running >= _most) {
            return false;
        }
        ++_running;
    }
    try {
        std::thread([this, stream = std::move(stream)]() mutable {
            try {
                stream();
            } catch (const std::exception&) {
            }
            // What the stream holds must not outlive the threads' owner.
            stream = nullptr;
            Finish();
        }).detach();
    } catch (const std::system_error&) {
        Finish();
        return false;
    }
    return true;
}

void StreamThreads::Finish() {
    // Under the lock: as soon as it is open, the object may go.
    const std::lock_guard lock(_mutex);
    --_running;
    _finished.notify_all();
}
