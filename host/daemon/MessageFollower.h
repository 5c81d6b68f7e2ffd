#pragma once

#include "QxNJson.h"
#include "http/Background.h"
#include "http/Message.h"
#include "support/UniqueFd.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <deque>
#include <string>

/// The messages for the user of the board, as the message manager writes them: one JSON object a line. Follows the file
/// by inotify, across its renaming, so that nothing happens while nothing is written.
///
/// Belongs to the thread of the io_context.
class MessageFollower {
public:
    struct Message {
        std::uint64_t number;  ///< counts up from 1 in the order of arrival
        QxNJson::json content;
    };

    /// @param path  of the file; it may not be there yet
    MessageFollower(boost::asio::io_context& io, std::string path);
    MessageFollower(const MessageFollower&) = delete;
    MessageFollower& operator=(const MessageFollower&) = delete;
    ~MessageFollower();

    /// Begins to follow; runs until the io_context ends.
    QxNHttp::Task<void> Run();

    /// @return the newest messages, oldest first
    const std::deque<Message>& Messages() const { return _messages; }
    /// Waits until there is a new one.
    QxNHttp::Task<void> WaitForMore() { return _more.Wait(); }

private:
    bool Watch();
    void Read();
    void Take(const std::string& line);

    const std::string _path;
    boost::asio::posix::stream_descriptor _watch;
    QxNHttp::Event _more;
    QxNSupport::UniqueFd _file;
    bool _isFollowing = false;  ///< what comes now is new
    std::string _rest;          ///< the beginning of a line
    std::deque<Message> _messages;
    std::uint64_t _lastNumber = 0;
};
