#pragma once

#include "LogRing.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The log of one container, between the one who reads it from Podman and its viewers. Thread safety: all operations
/// may be called from any thread; none waits but WaitUntilReady.
class ContainerLog {
public:
    struct Ending {
        std::string code;
        std::string reason;
    };

    /// What a viewer gets next.
    struct Batch {
        std::uint64_t skipped = 0;  ///< lines that are gone already; there are no others then
        std::vector<LogLinePtr> lines;
        size_t bytes = 0;       ///< of their JSON objects and a byte for each
        bool hasEnded = false;  ///< nothing comes after these
    };

    ContainerLog(std::string id, bool hasTerminal, size_t ringLines, size_t ringBytes);

    const std::string& Id() const { return _id; }
    bool HasTerminal() const { return _hasTerminal; }

    // --- For the one who reads ---

    /// Takes the lines out of the vector; after the end they are dropped.
    void Append(std::vector<LogLinePtr>& lines);
    /// Says that the lines that were there at the beginning have arrived.
    void SetReady();
    /// Says that nothing comes any more; the first ending counts.
    void End(Ending ending);

    // --- For viewers ---

    /// Waits until the lines that were there at the beginning have arrived or the log has ended.
    void WaitUntilReady(std::chrono::milliseconds atMost);
    std::uint64_t Tail(size_t lines) const;
    std::optional<std::uint64_t> After(const LogMark& mark) const;

    /// Takes lines from a position on, as many as their JSON objects and a byte between them have room; at least one.
    /// @param position  advanced behind them
    Batch Take(std::uint64_t& position, size_t maxBytes) const;
    /// @return the ending; empty before it
    Ending TheEnding() const;

    /// Calls back once as soon as there is something at the position; at once when there is something already.
    /// @param viewer  key of the call; a second one takes the place of the first
    void NotifyOnce(const void* viewer, std::uint64_t position, std::function<void()> callback);
    /// @return whether After() can tell for good: the line is there, or it will not come any more; without a mark,
    ///         whether Tail() can
    bool Knows(const std::optional<LogMark>& mark) const;
    /// Calls back once, perhaps early, when Knows() may have become true.
    void NotifyWhenKnown(const void* viewer, const std::optional<LogMark>& mark,
                         std::function<void()> callback);
    /// Forgets the viewer's call.
    void Forget(const void* viewer);

private:
    using Waiters = std::vector<std::pair<const void*, std::function<void()>>>;

    /// With the mutex held.
    bool HasSettled(const std::optional<LogMark>& mark) const;
    template <typename Predicate>
    void CallWhen(Predicate isThere, const void* viewer, std::function<void()> callback);
    void MoveOut(const void* viewer, Waiters& target);
    static void Call(const Waiters& waiters);

    const std::string _id;
    const bool _hasTerminal;
    mutable std::mutex _mutex;
    std::condition_variable _readyCondition;
    LogRing _ring;
    bool _isReady = false;
    bool _hasEnded = false;
    Ending _ending;
    Waiters _waiters;
};
