#pragma once

#include "api/StreamThreads.h"
#include "http/Background.h"
#include "http/Message.h"

#include <memory>
#include <string>

namespace QxNContainer {
class QxCContainer;
}

/// The whole log of a container as text, as far as it has been written, in pieces as the client takes them.
class LogDownload {
public:
    /// @param hasTerminal    whether the container has one, so that lines end with a carriage return too
    /// @param hasTimestamps  whether each line begins with its time
    LogDownload(const boost::asio::any_io_executor& executor, bool hasTerminal, bool hasTimestamps);
    LogDownload(const LogDownload&) = delete;
    LogDownload& operator=(const LogDownload&) = delete;
    /// Ends the reading.
    ~LogDownload();

    /// Begins to read, on a thread of its own.
    /// @param container  a name or id that was checked
    /// @param tail       how many lines, or "all"
    /// @return false when there are too many streams
    bool Start(StreamThreads& threads, QxNContainer::QxCContainer& service, const std::string& container,
               const std::string& tail);

    /// @return the next piece; empty at the end
    /// @throws Problem when Podman does not give the log; only before the first piece
    QxNHttp::Task<std::string> Next();

private:
    struct Pipe;
    const std::shared_ptr<Pipe> _pipe;
};
