#pragma once

#include "QxCErrorList.h"
#include "QxPlatformExport.h"

#include <cstdint>
#include <memory>

/// Threads, mutexes and processes as the board's operating system layer offers them.
namespace QxNRtosAbstraction {

/// A thread started by createThread; 0 is never a thread.
using QxTThreadHandle = std::uint64_t;

/// A thread's body; its result is what joinThread hands out.
using QxTThreadFunction = void* (*)(void* argument);

/// Starts a thread. A thread must be given to joinThread exactly once.
/// @param errors     receives an error with the cause when no thread could be started; may be null
/// @param handle     receives the handle; left alone on failure
/// @param priority   scheduling class of the board, 1 = normal; Linux runs it with the default policy
/// @param stackSize  stack size class of the board, 5 = default; Linux uses its default size
/// @param name       thread name; Linux shows its first 15 bytes
/// @param function   the thread's body
/// @param argument   passed to the body
/// @param flags      0, the only value in use
/// @return true when the thread runs
QX_PLATFORM_API bool createThread(QxCErrorListPool* errors, QxTThreadHandle* handle, int priority,
                                  int stackSize, const char* name, QxTThreadFunction function, void* argument,
                                  int flags);

/// Waits for a thread to end and releases it.
/// @param handle     a handle of createThread, joined at most once
/// @param result     receives the result of the thread's body; may be null
/// @param timeoutMs  longest wait in milliseconds; -1 waits without limit
/// @return true when the thread ended in time; false leaves it joinable (or says the handle is unknown)
QX_PLATFORM_API bool joinThread(QxTThreadHandle handle, void** result, int timeoutMs);

/// A mutex that is not recursive. Whoever locked it must unlock it, on the same thread.
class QX_PLATFORM_API QxCMutex {
public:
    /// @param name  name for diagnostics, copied; null for none
    explicit QxCMutex(const char* name);
    QxCMutex(const QxCMutex&) = delete;
    QxCMutex& operator=(const QxCMutex&) = delete;
    ~QxCMutex();

    /// @param timeoutMs  longest wait in milliseconds; -1 waits without limit, 0 only tries
    /// @return true when the calling thread holds the mutex now
    bool lock(int timeoutMs);

    void unlock();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

/// Returned by getProcessID when no process has the name.
inline constexpr unsigned int NoProcess = 0;

/// @param name  program name; compared whole, also beyond the 15 characters of the kernel's thread name
/// @return the process id, or NoProcess; with several of that name, the lowest id
QX_PLATFORM_API unsigned int getProcessID(const char* name);

/// Sends a signal with an accompanying value (sigqueue).
/// @param pid     process id; NoProcess and ids that are no positive process id fail and signal nobody
/// @param signal  signal number
/// @param value   integer handed to the receiver
/// @return true when the signal was sent
QX_PLATFORM_API bool signalProcess(unsigned int pid, int signal, int value);

}  // namespace QxNRtosAbstraction
