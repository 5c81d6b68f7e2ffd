#include "ContainerLog.h"

#include <algorithm>

ContainerLog::ContainerLog(std::string id, bool hasTerminal, size_t ringLines, size_t ringBytes)
    : _id(std::move(id)), _hasTerminal(hasTerminal), _ring(ringLines, ringBytes) {}

void ContainerLog::Append(std::vector<LogLinePtr>& lines) {
    Waiters waiters;
    {
        const std::lock_guard lock(_mutex);
        if (!_hasEnded && !lines.empty()) {
            for (LogLinePtr& line : lines) {
                _ring.Append(std::move(line));
            }
            waiters.swap(_waiters);
        }
    }
    lines.clear();
    Call(waiters);
}

void ContainerLog::SetReady() {
    Waiters waiters;
    {
        const std::lock_guard lock(_mutex);
        if (_isReady) {
            return;
        }
        _isReady = true;
        _readyCondition.notify_all();
        waiters.swap(_waiters);
    }
    Call(waiters);
}

void ContainerLog::End(Ending ending) {
    Waiters waiters;
    {
        const std::lock_guard lock(_mutex);
        if (_hasEnded) {
            return;
        }
        _hasEnded = true;
        _ending = std::move(ending);
        _isReady = true;
        _readyCondition.notify_all();
        waiters.swap(_waiters);
    }
    Call(waiters);
}

void ContainerLog::WaitUntilReady(std::chrono::milliseconds atMost) {
    std::unique_lock lock(_mutex);
    _readyCondition.wait_for(lock, atMost, [this] { return _isReady; });
}

std::uint64_t ContainerLog::Tail(size_t lines) const {
    const std::lock_guard lock(_mutex);
    return _ring.Tail(lines);
}

std::optional<std::uint64_t> ContainerLog::After(const LogMark& mark) const {
    const std::lock_guard lock(_mutex);
    return _ring.After(mark);
}

ContainerLog::Batch ContainerLog::Take(std::uint64_t& position, size_t maxBytes) const {
    Batch batch;
    const std::lock_guard lock(_mutex);
    if (position < _ring.Begin()) {
        batch.skipped = _ring.Begin() - position;
        position = _ring.Begin();
        return batch;
    }
    for (; position != _ring.End(); ++position) {
        const LogLinePtr& line = _ring.At(position);
        const size_t bytes = batch.bytes + line->json.size() + 1;
        if (bytes > maxBytes && !batch.lines.empty()) {
            break;
        }
        batch.bytes = bytes;
        batch.lines.push_back(line);
    }
    batch.hasEnded = _hasEnded && position == _ring.End();
    return batch;
}

ContainerLog::Ending ContainerLog::TheEnding() const {
    const std::lock_guard lock(_mutex);
    return _ending;
}

bool ContainerLog::HasSettled(const std::optional<LogMark>& mark) const {
    const bool isEmpty = _ring.Begin() == _ring.End();
    if (_isReady || !mark) {
        return _isReady || !isEmpty;
    }
    return (!isEmpty && _ring.At(_ring.End() - 1)->mark.time > mark->time) || _ring.After(*mark).has_value();
}

bool ContainerLog::Knows(const std::optional<LogMark>& mark) const {
    const std::lock_guard lock(_mutex);
    return HasSettled(mark);
}

template <typename Predicate>
void ContainerLog::CallWhen(Predicate isThere, const void* viewer, std::function<void()> callback) {
    // Destroyed when the lock is open: a callback may own what calls back here.
    Waiters replaced;
    {
        const std::lock_guard lock(_mutex);
        MoveOut(viewer, replaced);
        if (!isThere()) {
            _waiters.emplace_back(viewer, std::move(callback));
            return;
        }
    }
    callback();
}

void ContainerLog::NotifyOnce(const void* viewer, std::uint64_t position, std::function<void()> callback) {
    CallWhen([&] { return position < _ring.End() || _hasEnded; }, viewer, std::move(callback));
}

void ContainerLog::NotifyWhenKnown(const void* viewer, const std::optional<LogMark>& mark,
                                   std::function<void()> callback) {
    CallWhen([&] { return HasSettled(mark); }, viewer, std::move(callback));
}

void ContainerLog::Forget(const void* viewer) {
    Waiters forgotten;
    const std::lock_guard lock(_mutex);
    MoveOut(viewer, forgotten);
}

void ContainerLog::MoveOut(const void* viewer, Waiters& target) {
    const auto found = std::find_if(_waiters.begin(), _waiters.end(),
                                    [&](const auto& waiter) { return waiter.first == viewer; });
    if (found != _waiters.end()) {
        target.push_back(std::move(*found));
        _waiters.erase(found);
    }
}

void ContainerLog::Call(const Waiters& waiters) {
    for (const auto& waiter : waiters) {
        waiter.second();
    }
}
