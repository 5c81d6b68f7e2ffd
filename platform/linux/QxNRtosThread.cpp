#include "PlatformMessages.h"
#include "QxNRtosAbstraction.h"
#include "TextFormat.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace QxNRtosAbstraction {

namespace {

using QxNLinuxPlatform::MessageNumber;

struct Thread {
    std::string name;
    QxTThreadFunction function = nullptr;
    void* argument = nullptr;
    pthread_t id{};

    std::mutex mutex;  ///< guards `ended`
    std::condition_variable endedChanged;
    bool ended = false;
};

/// The threads that wait for joinThread. Handles are never used again, so that a stale one is recognised.
struct ThreadTable {
    std::mutex mutex;
    QxTThreadHandle lastHandle = 0;
    std::map<QxTThreadHandle, std::shared_ptr<Thread>> threads;
};

ThreadTable& threadTable() {
    // Never destroyed: threads may outlive the static objects.
    static ThreadTable* const table = new ThreadTable;
    return *table;
}

/// Says that the thread ended, also when it ends by pthread_exit.
class EndNotice {
public:
    explicit EndNotice(Thread& thread) : _thread(thread) {}
    EndNotice(const EndNotice&) = delete;
    EndNotice& operator=(const EndNotice&) = delete;
    ~EndNotice() {
        const std::lock_guard lock(_thread.mutex);
        _thread.ended = true;
        _thread.endedChanged.notify_all();
    }

private:
    Thread& _thread;
};

void* runThread(void* argument) {
    const std::unique_ptr<std::shared_ptr<Thread>> owned(static_cast<std::shared_ptr<Thread>*>(argument));
    Thread& thread = **owned;
    const EndNotice notice(thread);
    // createThread holds the table until the handle is where the body may look for it.
    { const std::lock_guard lock(threadTable().mutex); }
    constexpr std::size_t LongestName = 15;
    ::pthread_setname_np(::pthread_self(), thread.name.substr(0, LongestName).c_str());
    return thread.function(thread.argument);
}

bool waitForEnd(Thread& thread, int timeoutMs) {
    const auto hasEnded = [&thread] { return thread.ended; };
    std::unique_lock lock(thread.mutex);
    if (timeoutMs < 0) {
        thread.endedChanged.wait(lock, hasEnded);
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    return thread.endedChanged.wait_until(lock, deadline, hasEnded);
}

}  // namespace

bool createThread(QxCErrorListPool* errors, QxTThreadHandle* handle, int /*priority*/, int /*stackSize*/,
                  const char* name, QxTThreadFunction function, void* argument, int /*flags*/) {
    if (handle == nullptr || function == nullptr) {
        addError(errors, MessageNumber::ThreadNotCreated,
                 "Cannot create a thread without handle or function");
        return false;
    }
    auto thread = std::make_shared<Thread>();
    thread->name = name != nullptr ? name : "";
    thread->function = function;
    thread->argument = argument;
    auto owned = std::make_unique<std::shared_ptr<Thread>>(thread);

    ThreadTable& table = threadTable();
    const std::lock_guard lock(table.mutex);
    const QxTThreadHandle newHandle = table.lastHandle + 1;
    const auto entry = table.threads.emplace(newHandle, thread).first;
    const int error = ::pthread_create(&thread->id, nullptr, runThread, owned.get());
    if (error != 0) {
        addError(errors, MessageNumber::ThreadNotCreated,
                 "Cannot create thread '" + thread->name + "': " + QxNLinuxPlatform::errorText(error));
        table.threads.erase(entry);
        return false;
    }
    static_cast<void>(owned.release());
    table.lastHandle = newHandle;
    *handle = newHandle;
    return true;
}

bool joinThread(QxTThreadHandle handle, void** result, int timeoutMs) {
    ThreadTable& table = threadTable();
    std::shared_ptr<Thread> thread;
    {
        const std::lock_guard lock(table.mutex);
        const auto entry = table.threads.find(handle);
        if (entry == table.threads.end() || ::pthread_equal(entry->second->id, ::pthread_self()) != 0) {
            return false;
        }
        thread = entry->second;
    }
    if (!waitForEnd(*thread, timeoutMs)) {
        return false;
    }
    {
        // Of several callers that waited, one joins.
        const std::lock_guard lock(table.mutex);
        if (table.threads.erase(handle) == 0) {
            return false;
        }
    }
    void* returned = nullptr;
    if (::pthread_join(thread->id, &returned) != 0) {
        return false;
    }
    if (result != nullptr) {
        *result = returned;
    }
    return true;
}

}  // namespace QxNRtosAbstraction
