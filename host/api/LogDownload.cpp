#include "api/LogDownload.h"

#include "LogParser.h"
#include "QxCContainer.h"
#include "QxCWebSocket.h"
#include "support/ErrorListScope.h"

#include <array>
#include <condition_variable>
#include <mutex>
#include <optional>

using QxNContainer::QxCContainer;
using QxNHttp::Problem;
using QxNHttp::Status;

namespace {

constexpr size_t MostWaiting = 256 << 10;
constexpr size_t LongestLine = 64 << 10;

}  // namespace

/// Between the stream's thread, which waits when the client is slow, and the connection's.
struct LogDownload::Pipe final : QxNSmartWebApi::QxCWebSocket {
    Pipe(const boost::asio::any_io_executor& executor, bool hasTerminal, bool withTimes)
        : more(executor), hasTimestamps(withTimes), parser(hasTerminal, LongestLine) {}

    /// Takes a line, or a part of one: parts of different streams come in turns.
    void Take(const LogParser::Piece& line, std::string& text) {
        const auto source = static_cast<size_t>(line.source);
        std::string& whole = begun[source];
        if (hasTimestamps && whole.empty() && given != source) {
            whole.append(line.timeText).append(" ");
        }
        whole.append(line.text);
        if (!line.isPartial || whole.size() >= LongestLine) {
            Give(source, text);
            given = line.isPartial ? std::optional(source) : std::nullopt;
            text.append(line.isPartial ? "" : "\n");
        }
    }

    void Give(size_t source, std::string& text) {
        text.append(given && given != source ? "\n" : "").append(begun[source]);
        begun[source].clear();
        given = source;
    }

    int sendBinary(QxCErrorListPool&, const unsigned char* data, unsigned int length, int, bool) override {
        std::string piece;
        const bool isSound = parser.Take({reinterpret_cast<const char*>(data), length},
                                         [&](const LogParser::Piece& line) { Take(line, piece); });
        std::unique_lock lock(mutex);
        room.wait(lock, [this] { return waiting.size() < MostWaiting || isAbandoned; });
        if (isAbandoned || !isSound) {
            return 1;
        }
        waiting += piece;
        more.Notify();
        return 0;
    }

    void Run(QxCContainer& service, const std::string& container, const std::string& tail) {
        PodmanResponse response;
        try {
            QxNSupport::ErrorListScope errors;
            const auto session = service.RegisterLogStreamSession(this, container);
            // Then everything comes as it is, with the marks that the parser wants.
            session->tty = true;
            response = service.StreamPodmanRequest(
                "/libpod/containers/" + container +
                    "/logs?follow=false&stdout=true&stderr=true&timestamps=true&tail=" + tail,
                QxCCurlHandler::Get, {}, errors.List(), session, this);
        } catch (const std::exception&) {
            response.httpCode = 0;
        }
        service.UnregisterLogStreamSession(this);
        const std::lock_guard lock(mutex);
        for (size_t source = 0; source < begun.size(); ++source) {
            if (!begun[source].empty()) {
                Give(source, waiting);
            }
        }
        hasEnded = true;
        httpCode = response.httpCode;
        more.Notify();
    }

    QxNHttp::Event more;
    const bool hasTimestamps;
    LogParser parser;
    std::array<std::string, 3> begun;  ///< lines without an end yet, by source
    std::optional<size_t> given;  ///< the source of a line whose beginning was given, because it is too long
    std::mutex mutex;
    std::condition_variable room;
    std::string waiting;
    bool isAbandoned = false;
    bool hasEnded = false;
    int httpCode = 0;
};

LogDownload::LogDownload(const boost::asio::any_io_executor& executor, bool hasTerminal, bool hasTimestamps)
    : _pipe(std::make_shared<Pipe>(executor, hasTerminal, hasTimestamps)) {}

LogDownload::~LogDownload() {
    {
        const std::lock_guard lock(_pipe->mutex);
        _pipe->isAbandoned = true;
        _pipe->room.notify_all();
    }
    QxCContainer::LogStreamCloseHandler(nullptr, 0, _pipe.get());
}

bool LogDownload::Start(StreamThreads& threads, QxCContainer& service, const std::string& container,
                        const std::string& tail) {
    return threads.Run([pipe = _pipe, &service, container, tail] { pipe->Run(service, container, tail); });
}

QxNHttp::Task<std::string> LogDownload::Next() {
    for (;;) {
        {
            const std::lock_guard lock(_pipe->mutex);
            if (!_pipe->waiting.empty()) {
                _pipe->room.notify_all();
                co_return std::exchange(_pipe->waiting, {});
            }
            if (_pipe->hasEnded) {
                break;
            }
        }
        co_await _pipe->more.Wait();
    }
    if (_pipe->httpCode == 404) {
        throw Problem(Status::not_found, "There is no such container.");
    }
    if (_pipe->httpCode != 200) {
        throw Problem(_pipe->httpCode == 0 ? Status::service_unavailable : Status::bad_gateway,
                      "Podman does not give the log; it answered " + std::to_string(_pipe->httpCode) + ".");
    }
    co_return std::string();
}
