// Any bytes as what a client sends to the daemon over one connection. The first byte says whether it came through the
// Unix socket, the second where its bytes are cut in two pieces. The answers must be whole, no handler may see more
// than a strict reading of the bytes gives it, and cutting the bytes must not change anything.

#include "Recording.h"
#include "Support.h"
#include "http/Connection.h"

#include <openssl/sha.h>
#include <strings.h>
#include <sys/socket.h>
#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/http/verb.hpp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Fuzz::Require;
using namespace QxNHttp;

constexpr size_t LongestBody = 64;
constexpr const char* Uploads = "/mnt/uploads";
constexpr const char* Page = "/mnt/page";
constexpr const char* TokenFile = "/mnt/tokens.json";
constexpr const char* OurName = "board";

/// What is served and what must not be: the file beside the page's directory.
constexpr const char* Index = "<p>index";
constexpr const char* Script = "script()";
constexpr const char* Secret = "secret";

// --- The server ---

/// A request that a handler has seen.
struct Call {
    std::string method;
    std::string target;
    Right needed;
};

std::vector<Call> calls;

void Record(const Request& request, Right needed) {
    calls.push_back({std::string(boost::beast::http::to_string(request.method)), request.target, needed});
    Require(request.client.right >= needed);
}

Reply Text(const std::string& text) {
    Reply reply;
    reply.type = "text/plain";
    reply.body = text;
    return reply;
}

Task<void> Greet(WebSocket& socket) {
    co_await socket.Send("hello");
    co_await socket.SendBinary("world", true);
    co_await socket.Close("bye");
}

Router MakeRouter() {
    Router router;
    router.Add(Verb::get, "/names/{name}", Right::None, [](Request& request) -> Task<Reply> {
        Record(request, Right::None);
        co_return Text("name");
    });
    router.Add(Verb::get, "/client", Right::Look, [](Request& request) -> Task<Reply> {
        Record(request, Right::Look);
        co_return Text("look");
    });
    router.Add(Verb::post, "/client", Right::Act, [](Request& request) -> Task<Reply> {
        Record(request, Right::Act);
        co_return Text("act");
    });
    router.Add(Verb::post, "/text", Right::None, [](Request& request) -> Task<Reply> {
        Record(request, Right::None);
        const std::string text = co_await request.body->Text(LongestBody);
        Require(text.size() <= LongestBody);
        co_return Text("text");
    });
    router.Add(Verb::put, "/files/{name}", Right::None, [](Request& request) -> Task<Reply> {
        Record(request, Right::None);
        auto file = co_await request.body->ToFile(Uploads, LongestBody);
        Require(file.Size() <= LongestBody && std::filesystem::file_size(file.Path()) == file.Size());
        co_return Reply::Empty(Status::created);
    });
    router.Add(Verb::get, "/produced", Right::None, [](Request& request) -> Task<Reply> {
        Record(request, Right::None);
        Reply reply;
        reply.producer = [](BodyWriter& body) -> Task<void> {
            co_await body.Write("pro");
            co_await body.Write("duced");
        };
        co_return reply;
    });
    router.AddStream("/stream", Right::None, [](Request& request) -> Task<Router::Stream> {
        Record(request, Right::None);
        co_return Greet;
    });
    return router;
}

std::string HashOf(const std::string& token) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(token.data()), token.size(), digest);
    std::string text;
    for (const unsigned char byte : digest) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return text;
}

void WriteFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void MakePlaces() {
    const std::string page = Page;
    WriteFile(page + "/index.html", Index);
    WriteFile(page + "/assets/a.js", Script);
    WriteFile("/mnt/secret", Secret);
    std::filesystem::create_symlink("/mnt/secret", page + "/link");
    std::filesystem::create_directory_symlink("/mnt", page + "/up");
    std::filesystem::create_directories(Uploads);
    const auto entry = [](const std::string& right) {
        return R"({"name":")" + right + R"(","right":")" + right + R"(","created":"","sha256":")" +
               HashOf(right) + R"("})";
    };
    WriteFile(TokenFile, R"({"tokens":[)" + entry("look") + "," + entry("act") + "]}");
}

/// One connection at a time, all on this thread.
class Daemon {
public:
    Daemon() : _router(MakeRouter()), _tokens(TokenFile) {
        _options.page = Page;
        _options.hosts = {OurName};
        _options.largestTarget = 512;
        // The loop makes its descriptors at its first use.
        Ask({}, {}, {});
    }

    /// @return everything that is answered to the pieces, of which the client sends the second when nothing more
    ///         happens after the first
    std::string Ask(std::string_view first, std::string_view second, const Origin& origin) {
        int pair[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) == 0);
        std::string answers;
        {
            Stream stream{boost::asio::any_io_executor(_io.get_executor())};
            stream.socket().assign(boost::asio::generic::stream_protocol(AF_UNIX, 0), pair[0]);
            bool isServed = false;
            boost::asio::co_spawn(_io, ServeConnection(stream, origin, _ground),
                                  [&](const std::exception_ptr& error) {
                                      Require(!error);
                                      isServed = true;
                                  });
            for (const std::string_view piece : {first, second}) {
                Send(pair[1], piece);
                _io.restart();
                while (_io.poll() > 0) {
                    Receive(pair[1], answers);
                }
            }
            shutdown(pair[1], SHUT_WR);
            while (!isServed) {
                _io.restart();
                Require(_io.run_one() == 1);
                Receive(pair[1], answers);
            }
        }
        _io.restart();
        _io.poll();
        Require(Receive(pair[1], answers));
        close(pair[1]);
        return answers;
    }

private:
    /// What the other side no longer takes is lost.
    static void Send(int socket, std::string_view bytes) {
        static_cast<void>(send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    /// @return whether the other side has ended the connection
    static bool Receive(int socket, std::string& answers) {
        char bytes[4096];
        for (;;) {
            const ssize_t count = recv(socket, bytes, sizeof(bytes), 0);
            if (count <= 0) {
                return count == 0 || errno == ECONNRESET;
            }
            answers.append(bytes, static_cast<size_t>(count));
        }
    }

    boost::asio::io_context _io{1};
    ServerOptions _options;
    const Router _router;
    const Tokens _tokens;
    const Ground _ground{_options, _router, _tokens};
};

// --- The strict reading of what is sent ---

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return lower;
}

bool IsToken(std::string_view text) {
    constexpr const char* Kept =
        "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    return !text.empty() && text.find_first_not_of(Kept) == std::string_view::npos;
}

std::string_view Trimmed(std::string_view text) {
    const size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

/// Takes a line off the front; it has nothing else of a line end in it.
std::optional<std::string_view> TakeLine(std::string_view& text) {
    const size_t end = text.find("\r\n");
    const std::string_view line = text.substr(0, end);
    if (end == std::string_view::npos || line.find_first_of(std::string_view("\r\n\0", 3)) != line.npos) {
        return {};
    }
    text.remove_prefix(end + 2);
    return line;
}

using Fields = std::multimap<std::string, std::string>;

std::optional<Fields> TakeFields(std::string_view& text) {
    Fields fields;
    auto last = fields.end();
    for (auto line = TakeLine(text); line; line = TakeLine(text)) {
        if (line->empty()) {
            return fields;
        }
        const size_t colon = line->find(':');
        if ((*line)[0] == ' ' || (*line)[0] == '\t') {
            // A folded line.
            if (last == fields.end()) {
                return {};
            }
            last->second = Trimmed(last->second + " " + std::string(Trimmed(*line)));
        } else if (colon == std::string_view::npos || !IsToken(line->substr(0, colon))) {
            return {};
        } else {
            last = fields.emplace(Lower(line->substr(0, colon)), Trimmed(line->substr(colon + 1)));
        }
    }
    return {};
}

bool TakeChunks(std::string_view& text) {
    for (auto line = TakeLine(text); line; line = TakeLine(text)) {
        const size_t digits = std::min(line->find_first_not_of("0123456789abcdefABCDEF"), line->size());
        if (digits == 0 || digits > 16) {
            return false;
        }
        const std::uint64_t size = std::stoull(std::string(line->substr(0, digits)), nullptr, 16);
        if (size == 0) {
            return TakeFields(text).has_value();
        }
        if (size > text.size() || text.substr(static_cast<size_t>(size), 2) != "\r\n") {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(size) + 2);
    }
    return false;
}

/// A request in the bytes that are sent.
struct Sent {
    std::string method;
    std::string target;
    Fields fields;
    bool hasClearEnd = false;  ///< the header leaves no doubt about where the body ends

    const std::string* Only(const char* name) const {
        return fields.count(name) == 1 ? &fields.find(name)->second : nullptr;
    }

    bool HasAllowedSender(bool isLocal) const {
        const std::string* const host = Only("host");
        if (host == nullptr) {
            return false;
        }
        const std::set<std::string> names = {"localhost", "127.0.0.1", "[::1]", OurName};
        const size_t colon = host->rfind(':');
        const bool hasPort =
            colon != std::string::npos && host->find_first_not_of("0123456789", colon + 1) == host->npos;
        const bool isOurs = names.count(Lower(host->substr(0, hasPort ? colon : host->npos))) == 1;
        const bool isSameOrigin = fields.count("origin") == 0 ||
                                  (Only("origin") && Lower(*Only("origin")) == "http://" + Lower(*host));
        return (isLocal || isOurs) && isSameOrigin;
    }

    bool MayHave(Right right, bool isLocal) const {
        const auto names = [&](const char* field, std::string_view token) {
            const auto [begin, end] = fields.equal_range(field);
            return std::any_of(begin, end,
                               [&](const auto& entry) { return entry.second.find(token) != token.npos; });
        };
        const auto has = [&](std::string_view token) {
            return names("authorization", token) || names("cookie", token);
        };
        return isLocal || right == Right::None || has("act") || (right == Right::Look && has("look"));
    }
};

/// Reads the request's header off the front, and its body when it leaves no doubt.
/// @return whether another request may follow
bool TakeRequest(std::string_view& text, std::vector<Sent>& requests) {
    const auto line = TakeLine(text);
    const size_t first = line ? line->find(' ') : std::string_view::npos;
    const size_t last = line ? line->rfind(' ') : std::string_view::npos;
    if (first == std::string_view::npos || first == last) {
        return false;
    }
    const std::string_view version = line->substr(last + 1);
    Sent sent{
        std::string(line->substr(0, first)), std::string(line->substr(first + 1, last - first - 1)), {}};
    auto fields = TakeFields(text);
    if (!IsToken(sent.method) || sent.target.find(' ') != sent.target.npos || !fields ||
        (version != "HTTP/1.1" && version != "HTTP/1.0")) {
        return false;
    }
    sent.fields = std::move(*fields);
    const auto [lengthBegin, lengthEnd] = sent.fields.equal_range("content-length");
    const bool hasLength = lengthBegin != lengthEnd;
    const bool isChunked = sent.fields.count("transfer-encoding") > 0;
    std::uint64_t length = 0;
    sent.hasClearEnd = !(hasLength && isChunked);
    if (hasLength) {
        const std::string& digits = lengthBegin->second;
        sent.hasClearEnd =
            sent.hasClearEnd && !digits.empty() && digits.size() <= 20 &&
            digits.find_first_not_of("0123456789") == digits.npos &&
            std::all_of(lengthBegin, lengthEnd, [&](const auto& entry) { return entry.second == digits; });
        length = sent.hasClearEnd ? std::strtoull(digits.c_str(), nullptr, 10) : 0;
    } else if (isChunked) {
        const std::string* const coding = sent.Only("transfer-encoding");
        sent.hasClearEnd = coding != nullptr && Lower(*coding) == "chunked";
    }
    requests.push_back(sent);
    if (!sent.hasClearEnd || length > text.size()) {
        return false;
    }
    text.remove_prefix(static_cast<size_t>(length));
    return !isChunked || TakeChunks(text);
}

std::vector<Sent> ReadStrictly(std::string_view text) {
    std::vector<Sent> requests;
    while (TakeRequest(text, requests)) {
    }
    return requests;
}

/// Every call belongs to a request of its own, in their order, which was allowed to make it.
void CheckCalls(const std::vector<Sent>& requests, bool isLocal) {
    auto next = requests.begin();
    for (const Call& call : calls) {
        next = std::find_if(next, requests.end(), [&](const Sent& sent) {
            return sent.method == call.method && sent.target == call.target && sent.hasClearEnd &&
                   sent.HasAllowedSender(isLocal) && sent.MayHave(call.needed, isLocal);
        });
        Require(next != requests.end());
        ++next;
    }
}

// --- The answers ---

void CheckFrames(std::string_view bytes) {
    constexpr unsigned Text = 0x81, Binary = 0x82, Close = 0x88, Ping = 0x89, Pong = 0x8a;
    while (!bytes.empty()) {
        const auto kind = static_cast<unsigned char>(bytes[0]);
        Require(bytes.size() >= 2);
        const auto length = static_cast<unsigned char>(bytes[1]);
        Require(length <= 125 && bytes.size() >= length + 2U);
        const std::string_view payload = bytes.substr(2, length);
        Require((kind == Text && payload == "hello") || (kind == Binary && payload == "world") ||
                kind == Close || kind == Ping || kind == Pong);
        bytes.remove_prefix(length + 2U);
        Require(kind != Close || bytes.empty());
    }
}

void CheckProtection(const Fields& fields) {
    Require(fields.count("server") == 1 && fields.count("content-security-policy") == 1 &&
            fields.count("x-content-type-options") == 1 && fields.count("referrer-policy") == 1 &&
            fields.count("cache-control") == 1);
}

/// Reads one answer off the front.
/// @return its status
int TakeAnswer(std::string_view& text, bool isHead) {
    const auto line = TakeLine(text);
    Require(line && line->size() >= 13 && line->starts_with("HTTP/1.1 ") && (*line)[12] == ' ');
    const int status = std::stoi(std::string(line->substr(9, 3)));
    const std::set<int> known = {100, 101, 200, 201, 400, 401, 403, 404, 405, 413, 421, 426, 431};
    Require(known.count(status) == 1);
    const auto fields = TakeFields(text);
    Require(fields.has_value());
    const auto has = [&](const char* name, const char* value) {
        return fields->count(name) == 1 && fields->find(name)->second == value;
    };
    if (status == 100) {
        Require(fields->empty());
        return status;
    }
    CheckProtection(*fields);
    const bool isLast = has("connection", "close");
    if (status == 101) {
        Require(has("upgrade", "websocket") && fields->count("sec-websocket-accept") == 1);
        return status;
    }
    // What cannot be read as a request is refused as if it were no HEAD.
    const bool isUnread = (status == 400 || status == 431) && isLast && !text.empty();
    const bool hasBody = !isHead || isUnread;
    std::string_view body;
    if (hasBody && fields->count("content-length") == 1) {
        const size_t length = std::stoul(fields->find("content-length")->second);
        Require(text.size() >= length && !has("transfer-encoding", "chunked"));
        body = text.substr(0, length);
        text.remove_prefix(length);
    } else if (hasBody && has("transfer-encoding", "chunked")) {
        const std::string_view before = text;
        Require(TakeChunks(text));
        body = before.substr(0, before.size() - text.size());
    } else if (hasBody) {
        Require(isLast);
        body = text;
        text = {};
    }
    Require(status < 400 || has("content-type", "application/problem+json"));
    if (status == 200 && !isHead) {
        const std::set<std::string_view> bodies = {
            Index, Script, "name", "look", "act", "text", "produced", "3\r\npro\r\n5\r\nduced\r\n0\r\n\r\n"};
        Require(bodies.count(body) == 1);
    }
    Require(!isLast || text.empty());
    return status;
}

/// @return the answers; behind one that opens a WebSocket there is no more that bears comparing
std::vector<std::string_view> CheckAnswers(std::string_view text, const std::vector<Sent>& requests) {
    std::vector<std::string_view> answers;
    for (size_t answered = 0; !text.empty();) {
        Require(answered <= requests.size());
        const bool isHead = answered < requests.size() && requests[answered].method == "HEAD";
        const std::string_view before = text;
        const int status = TakeAnswer(text, isHead);
        answers.push_back(before.substr(0, before.size() - text.size()));
        answered += status == 100 ? 0 : 1;
        if (status == 101) {
            CheckFrames(text);
            break;
        }
    }
    return answers;
}

/// What cannot be read as a request is refused for its form or for its length, or not at all when it ends too early;
/// which of them depends on how much of it was there at first.
void LeaveOutRefusal(std::vector<std::string_view>& answers) {
    for (const std::string_view detail :
         {"This is no HTTP request.", "The request's header is longer than "}) {
        if (!answers.empty() && answers.back().find(detail) != std::string_view::npos) {
            answers.pop_back();
            return;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    Fuzz::Hide("/mnt");
    MakePlaces();
    // The daemon tells its journal who has changed what.
    stderr = fopen("/dev/null", "we");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    static Daemon& daemon = *new Daemon;
    if (size < 2) {
        return 0;
    }
    const Origin origin{(data[0] & 1) != 0, false, "127.0.0.1"};
    const std::string bytes(data + 2, data + size);
    const std::vector<Sent> requests = ReadStrictly(bytes);

    const int nextDescriptor = Fuzz::NextDescriptor();
    calls.clear();
    const std::string answers = daemon.Ask(bytes, {}, origin);
    CheckCalls(requests, origin.isLocal);
    std::vector<std::string_view> whole = CheckAnswers(answers, requests);
    const size_t called = calls.size();

    calls.clear();
    const size_t cut = bytes.size() * data[1] / 256;
    const std::string again = daemon.Ask(bytes.substr(0, cut), bytes.substr(cut), origin);
    Require(calls.size() == called);
    std::vector<std::string_view> inPieces = CheckAnswers(again, requests);
    LeaveOutRefusal(whole);
    LeaveOutRefusal(inPieces);
    Require(whole == inPieces);

    Require(std::filesystem::is_empty(Uploads));
    Require(Fuzz::NextDescriptor() == nextDescriptor);
    return 0;
}
