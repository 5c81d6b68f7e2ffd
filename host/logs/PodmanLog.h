#pragma once

#include "ContainerLog.h"
#include "ContainerState.h"
#include "LogHistory.h"
#include "LogResume.h"
#include "QxCContainer.h"
#include "QxCWebSocket.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

/// Reads the log of one container from Podman, on a thread of its own: what is there already, then what comes, until
/// the container has ended or somebody stops it.
///
/// Everything comes in one stream of Podman's own interface, as it arrives: there the frames' marks tell standard
/// output from standard error, also with a terminal. Podman's "since" and "follow" together have no gap, but "tail"
/// and "follow" do; hence the two requests.
class PodmanLog {
public:
    struct Limits {
        unsigned history;  ///< lines to begin with
        size_t ringBytes;
        size_t lineBytes;
    };

    /// @param service    must outlive the object
    /// @param container  as it was just now
    /// @param log        receives the lines and the ending
    /// @param done       called by the thread at its end
    PodmanLog(QxNContainer::QxCContainer& service, const ContainerState& container,
              std::shared_ptr<ContainerLog> log, const Limits& limits, std::function<void()> done);
    PodmanLog(const PodmanLog&) = delete;
    PodmanLog& operator=(const PodmanLog&) = delete;
    ~PodmanLog() = default;

    /// Asks Podman about the container and starts the thread, unless Stop() has been called.
    /// @throws std::system_error when there is no thread to be had
    void Start();
    /// Ends the log with the code "stopping", at once for viewers, within about a second for the thread. From any
    /// thread.
    void Stop();
    /// Waits for the thread where there is one; after Stop() or `done`.
    void Join();

private:
    using Clock = std::chrono::steady_clock;

    /// What the library sends to.
    class Receiver : public QxNSmartWebApi::QxCWebSocket {
    public:
        std::function<bool(std::string_view)> take;
        int sendBinary(QxCErrorListPool& errors, const unsigned char* data, unsigned int length,
                       int timeoutMs, bool fragment) override;
    };

    using Ending = ContainerLog::Ending;

    void Run();
    Ending Read();
    /// Takes what is there already.
    /// @return the ending when there is nothing to follow
    std::optional<Ending> ReadHistory();
    /// Takes what comes, until the stream ends.
    /// @return the ending when there was no stream
    std::optional<Ending> Follow();
    /// Asks why the stream has ended.
    /// @return nothing when the container runs
    std::optional<Ending> FindEnding();
    /// @return whether the container has not run since it was looked at before the history was read
    bool NobodyWrote();

    /// Performs a request for lines; `_parser` gives what is no line.
    int RequestLines(const std::string& query, const std::function<void(LogLinePtr)>& take,
                     const std::function<void()>& chunkTaken, std::string& failure);
    /// @return the HTTP code; 200 only when the state could be read
    int RequestState();
    int Request(const std::string& endpoint, std::function<bool(std::string_view)> take);
    bool IsStopping();
    /// @return false when Stop() was called
    bool Pause(std::chrono::milliseconds time);

    QxNContainer::QxCContainer& _service;
    const ContainerState _container;
    const std::shared_ptr<ContainerLog> _log;
    const Limits _limits;
    const std::function<void()> _done;
    Receiver _receiver;
    std::shared_ptr<QxNContainer::QxCContainer::QxSLogStreamSession> _session;
    std::mutex _threadMutex;
    std::thread _thread;
    std::mutex _stopMutex;
    std::condition_variable _stopCondition;
    bool _isStopping = false;

    // Used by the thread only.
    ContainerState _state;  ///< as last asked
    LogResume _known;
    std::optional<std::int64_t> _since;  ///< where to begin while no line is known
    std::optional<LogMark> _target;      ///< last line that was there at the beginning
};
