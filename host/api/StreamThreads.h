#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

/// Threads for streams of the library: each blocks as long as its stream lasts, so that they would take all workers.
///
/// Thread safety: all operations may be called from any thread.
class StreamThreads {
public:
    /// @param most  threads at a time
    explicit StreamThreads(size_t most) : _most(most) {}
    StreamThreads(const StreamThreads&) = delete;
    StreamThreads& operator=(const StreamThreads&) = delete;
    /// As Stop().
    ~StreamThreads() { Stop(); }

    /// Refuses new ones and waits for all of them.
    void Stop();

    /// Runs something on a thread of its own. What it throws, such as a lack of memory, ends it.
    /// @return false when there are too many already, or no thread is to be had
    bool Run(std::function<void()> stream);

private:
    void Finish();

    size_t _most;
    std::mutex _mutex;
    std::condition_variable _finished;
    size_t _running = 0;
};
