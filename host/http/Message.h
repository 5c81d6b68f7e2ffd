#pragma once

#include "support/UniqueFd.h"

#include <boost/asio/awaitable.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace QxNHttp {

using Status = boost::beast::http::status;
using Verb = boost::beast::http::verb;
template <typename T>
using Task = boost::asio::awaitable<T>;

/// A failure that the client is told as problem details (RFC 9457).
class Problem : public std::runtime_error {
public:
    /// @param detail  what went wrong and what to do, for a person
    Problem(Status code, const std::string& detail) : std::runtime_error(detail), status(code) {}

    const Status status;
};

/// What a client may do.
enum class Right { None, Look, Act };

/// Who sent a request.
struct Client {
    std::string name;  ///< of the token; "local" on the Unix socket; empty without a token
    Right right = Right::None;
    bool isLocal = false;  ///< came through the Unix socket
    bool isTls = false;    ///< came through TLS
};

/// A file under construction: it has no name that anybody looks for until it is given one, and goes when it gets none.
class UploadedFile {
public:
    UploadedFile() = default;
    UploadedFile(std::string path, std::uint64_t size) : _path(std::move(path)), _size(size) {}
    UploadedFile(UploadedFile&& other) noexcept : _path(std::exchange(other._path, {})), _size(other._size) {}
    UploadedFile& operator=(UploadedFile&&) = delete;
    ~UploadedFile();

    const std::string& Path() const { return _path; }
    /// Removes the file now.
    void Remove();
    /// Gives the file up without removing it.
    std::string Release() { return std::exchange(_path, {}); }
    std::uint64_t Size() const { return _size; }

    /// Puts the file where it belongs, replacing what is there, in one step that survives a power cut.
    /// @return whether something was replaced
    /// @throws Problem when that is not possible
    bool MoveTo(const std::string& path);

private:
    std::string _path;
    std::uint64_t _size = 0;
};

/// The body of a request, which the handler reads when it has found the rest of the request in order.
class BodyReader {
public:
    virtual ~BodyReader() = default;

    /// @param limit  in bytes
    /// @throws Problem when it is longer
    virtual Task<std::string> Text(size_t limit) = 0;

    /// Writes the body to a new file, without holding it in memory.
    /// @param directory  made when it is missing
    /// @throws Problem when it is longer than the limit or the disk is full; nothing is kept then
    virtual Task<UploadedFile> ToFile(const std::string& directory, std::uint64_t limit) = 0;
};

/// A request as far as it has been read.
struct Request {
    Verb method = Verb::get;
    std::string target;                        ///< as sent
    std::vector<std::string> segments;         ///< of the path, percent-decoded
    std::map<std::string, std::string> query;  ///< decoded
    Client client;
    bool wantsWebSocket = false;
    BodyReader* body = nullptr;  ///< lives as long as the handler runs

    /// @return the parameter's text, or the default when it is not given
    std::string Parameter(const std::string& name, const std::string& fallback = {}) const;
    /// @throws Problem when the text is neither true nor false
    bool Flag(const std::string& name, bool fallback) const;
    /// @throws Problem when the text is no number of the range
    std::uint64_t Number(const std::string& name, std::uint64_t fallback, std::uint64_t highest) const;
};

/// Writes a body piece by piece.
class BodyWriter {
public:
    virtual ~BodyWriter() = default;
    /// Waits until the piece is on its way.
    virtual Task<void> Write(std::string piece) = 0;
};

/// What is answered.
struct Reply {
    using Producer = std::function<Task<void>(BodyWriter&)>;

    Status status = Status::ok;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    QxNSupport::UniqueFd file = {};  ///< when open, the body
    Producer producer = nullptr;     ///< when set, makes the body

    static Reply Empty(Status status = Status::no_content) { return {status, {}, {}, {}}; }
    static Reply Of(const Problem& problem);
};

/// The other end of a WebSocket. Used on the connection's thread.
class WebSocket {
public:
    virtual ~WebSocket() = default;
    using CloseCode = boost::beast::websocket::close_code;

    virtual Task<void> Send(std::string text) = 0;
    /// @param isLast  whether the message is complete with these bytes
    virtual Task<void> SendBinary(std::string_view bytes, bool isLast) = 0;
    /// Says goodbye; nothing can be sent afterwards.
    virtual Task<void> Close(std::string reason, CloseCode code = CloseCode::normal) = 0;
    /// Ends the connection at once.
    virtual void Drop() = 0;
};

/// Decodes percent-encoding.
/// @return nothing when it is malformed or gives a NUL
std::optional<std::string> PercentDecode(std::string_view text, bool plusIsBlank);

/// Fills target, segments and query.
/// @return whether the target is an absolute path whose segments are names: not empty, not "." or ".."
bool ParseTarget(std::string_view target, Request& request);

/// The one rule for names of files that clients give: [A-Za-z0-9][A-Za-z0-9._-]{0,127}.
bool IsFileName(std::string_view name);

}  // namespace QxNHttp
