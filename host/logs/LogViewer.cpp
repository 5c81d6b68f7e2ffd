#include "ContainerLog.h"
#include "LogHub.h"
#include "LogText.h"

#include <algorithm>
#include <utility>

LogViewer::LogViewer(std::shared_ptr<ContainerLog> log, std::shared_ptr<void> place, const LogStart& start)
    : _log(std::move(log)), _place(std::move(place)) {
    const auto cursor = LogCursor::Read(start.after);
    if (cursor && cursor->IsOf(_log->Id())) {
        _after = cursor->mark;
    } else {
        _tail = cursor ? LogStart::All : start.tail;
    }
}

LogViewer::~LogViewer() { _log->Forget(this); }

std::optional<std::string> LogViewer::Next(size_t maxBytes) {
    if (!_hasStarted) {
        _hasStarted = true;
        return R"({"type":"start","container":)" + LogText::Quoted(_log->Id()) + R"(,"tty":)" +
               (_log->HasTerminal() ? "true}" : "false}");
    }
    if (_after && _log->Knows(*_after)) {
        const auto after = _log->After(*_after);
        _after.reset();
        _position = after ? *after : _log->Tail(LogStart::All);
        if (!after) {
            return R"({"type":"skipped","count":-1})";
        }
    }
    if (_tail && _log->Knows(std::nullopt)) {
        _position = _log->Tail(*std::exchange(_tail, std::nullopt));
    }
    return _hasEnded || _after || _tail ? std::nullopt : FromLog(maxBytes);
}

std::optional<std::string> LogViewer::FromLog(size_t maxBytes) {
    constexpr std::string_view Head = R"({"type":"lines","lines":[)";
    constexpr std::string_view Foot = "]}";
    const size_t frame = Head.size() + Foot.size();
    const ContainerLog::Batch batch = _log->Take(_position, maxBytes - std::min(maxBytes, frame));
    if (batch.skipped != 0) {
        return R"({"type":"skipped","count":)" + std::to_string(batch.skipped) + "}";
    }
    if (batch.lines.empty()) {
        _hasEnded = batch.hasEnded;
        return batch.hasEnded ? std::optional(EndMessage()) : std::nullopt;
    }
    std::string message;
    message.reserve(batch.bytes + frame);
    message += Head;
    for (const LogLinePtr& line : batch.lines) {
        message += line->json;
        message += ',';
    }
    message.pop_back();
    message += Foot;
    return message;
}

std::string LogViewer::EndMessage() const {
    const ContainerLog::Ending ending = _log->TheEnding();
    return R"({"type":"end","code":)" + LogText::Quoted(ending.code) + R"(,"reason":)" +
           LogText::Quoted(ending.reason) + "}";
}

void LogViewer::NotifyOnce(std::function<void()> callback) {
    if (!_hasStarted) {
        callback();
    } else if (_after || _tail) {
        _log->NotifyWhenKnown(this, _after, std::move(callback));
    } else if (!_hasEnded) {
        _log->NotifyOnce(this, _position, std::move(callback));
    }
}
