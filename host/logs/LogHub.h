#pragma once

#include "LogLine.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace QxNContainer {
class QxCContainer;
}
class ContainerLog;

/// Which lines of a log that are there already a viewer wants.
struct LogStart {
    static constexpr size_t All = SIZE_MAX;

    size_t tail = 100;  ///< the last lines; All for everything that the hub has
    /// Cursor of the last line that the viewer has: what comes after it is wanted, and `tail` is ignored.
    std::string after = {};
};

/// Why a log cannot be had.
struct LogError {
    enum class Kind {
        BadCursor,  ///< `after` is no cursor
        NotFound,   ///< there is no such container
        NoPodman,   ///< no answer from Podman, or none that makes sense
        TooMany,    ///< no room for one more container
        Stopping,   ///< the hub ends
    };
    Kind kind = Kind::NoPodman;
    std::string text;  ///< for people
};

/// One viewer of a container's log: a position in the lines that the hub has. It may outlive the hub. Thread safety:
/// one operation at a time.
class LogViewer {
public:
    /// @param place  held until the viewer goes
    LogViewer(std::shared_ptr<ContainerLog> log, std::shared_ptr<void> place, const LogStart& start);
    LogViewer(const LogViewer&) = delete;
    LogViewer& operator=(const LogViewer&) = delete;
    /// Leaves. A callback that is on its way may still be called after that.
    ~LogViewer();

    /// Takes the next message for the client: `start` first, then `lines` and `skipped` as they come, and `end` last.
    /// Never waits.
    /// @param maxBytes  size of a message with lines; it is exceeded only by a single line that is larger
    /// @return a JSON text; nothing when there is nothing now
    std::optional<std::string> Next(size_t maxBytes);

    /// @return whether Next() has given the end; nothing comes after it
    bool HasEnded() const { return _hasEnded; }

    /// Calls back once as soon as Next() has something to give: at once on this thread, or later on another one, which
    /// must not be held up. A second call before that takes the place of the first. The callback may do everything
    /// with the viewer but destroy it on that thread; no lock is held.
    void NotifyOnce(std::function<void()> callback);

private:
    std::optional<std::string> FromLog(size_t maxBytes);
    std::string EndMessage() const;

    const std::shared_ptr<ContainerLog> _log;
    const std::shared_ptr<void> _place;
    // To be looked up as soon as the lines from before are there.
    std::optional<LogMark> _after;
    std::optional<size_t> _tail;
    std::uint64_t _position = 0;
    bool _hasStarted = false;
    bool _hasEnded = false;
};

/// Logs of containers for any number of viewers: one stream from Podman serves all viewers of a container, from a
/// bounded memory of its last lines. A viewer that is slower than that is told how many lines it has missed; nobody
/// waits for a viewer.
///
/// Each container that is watched has a thread, which waits for Podman (the HTTP client looks once a second whether it
/// is to end). One more thread ends the streams that nobody watches any more; it sleeps while there are none. Thread
/// safety: all operations may be called from any thread.
class LogHub {
public:
    struct Limits {
        size_t ringLines = 20000;                    ///< of one container
        size_t ringBytes = size_t{8} * 1024 * 1024;  ///< memory for them, with everything that they need
        unsigned history = 5000;                     ///< lines to ask Podman for at the beginning
        size_t lineBytes = size_t{16} * 1024;        ///< longer lines come in parts
        std::chrono::milliseconds linger{5000};      ///< how long a stream without viewers is kept
        size_t containers = 64;                      ///< streams at a time
    };

    /// @param service  must outlive the hub
    explicit LogHub(QxNContainer::QxCContainer& service);
    LogHub(QxNContainer::QxCContainer& service, const Limits& limits);
    LogHub(const LogHub&) = delete;
    LogHub& operator=(const LogHub&) = delete;
    /// As Stop(). No other operation may be going on.
    ~LogHub();

    /// Ends all logs with the code "stopping", refuses new ones, and waits for their streams: about a second. A stream
    /// waits for a Podman that hangs; once the service has been stopped there is none. May be called more than once, from
    /// any thread; whoever comes later waits for the first.
    void Stop();

    /// Either a viewer or an error.
    struct Opened {
        std::unique_ptr<LogViewer> viewer;
        LogError error;
    };

    /// Makes a viewer. Blocks until Podman has answered about the container and, at most a few seconds, until the
    /// lines that are there already have arrived.
    /// @param container  name or id
    Opened Open(const std::string& container, const LogStart& start);

    /// @return containers whose logs are being read
    size_t Streams() const;
    size_t Viewers() const;

private:
    class Impl;
    std::shared_ptr<Impl> _impl;
};
