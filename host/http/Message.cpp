#include "http/Message.h"

#include "QxNJson.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace QxNHttp {

namespace {

constexpr size_t LongestFileName = 128;

bool IsLetterOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int HexDigit(char c) {
    unsigned char value = 0;
    const auto [end, error] = std::from_chars(&c, &c + 1, value, 16);
    return error == std::errc() ? value : -1;
}

bool ParseQuery(std::string_view text, Request& request) {
    while (!text.empty()) {
        const std::string_view pair = text.substr(0, text.find('&'));
        text.remove_prefix(std::min(text.size(), pair.size() + 1));
        const size_t equals = std::min(pair.find('='), pair.size());
        const auto name = PercentDecode(pair.substr(0, equals), true);
        const auto value = PercentDecode(pair.substr(std::min(pair.size(), equals + 1)), true);
        if (!name || !value) {
            return false;
        }
        request.query[*name] = *value;
    }
    return true;
}

/// Makes a rename last.
void SyncDirectory(const std::string& path) {
    const QxNSupport::UniqueFd directory(
        open(std::filesystem::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen()) {
        TEMP_FAILURE_RETRY(fsync(directory.Get()));
    }
}

}  // namespace

UploadedFile::~UploadedFile() { Remove(); }

void UploadedFile::Remove() {
    if (!_path.empty()) {
        unlink(Release().c_str());
    }
}

bool UploadedFile::MoveTo(const std::string& path) {
    const bool replaces = access(path.c_str(), F_OK) == 0;
    if (rename(_path.c_str(), path.c_str()) != 0) {
        throw Problem(Status::internal_server_error,
                      "The file cannot be put at " + path + ": " + strerror(errno));
    }
    _path.clear();
    SyncDirectory(path);
    return replaces;
}

std::string Request::Parameter(const std::string& name, const std::string& fallback) const {
    const auto found = query.find(name);
    return found == query.end() ? fallback : found->second;
}

bool Request::Flag(const std::string& name, bool fallback) const {
    const std::string text = Parameter(name, fallback ? "true" : "false");
    if (text != "true" && text != "false") {
        throw Problem(Status::bad_request, "The parameter '" + name + "' must be true or false.");
    }
    return text == "true";
}

std::uint64_t Request::Number(const std::string& name, std::uint64_t fallback, std::uint64_t highest) const {
    const std::string text = Parameter(name, std::to_string(fallback));
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number > highest) {
        throw Problem(Status::bad_request, "The parameter '" + name + "' must be a number from 0 to " +
                                               std::to_string(highest) + ".");
    }
    return number;
}

Reply Reply::Of(const Problem& problem) {
    QxNJson::json body = QxNJson::json::object();
    body["type"] = "about:blank";
    body["title"] = std::string(boost::beast::http::obsolete_reason(problem.status));
    body["status"] = static_cast<int>(problem.status);
    body["detail"] = problem.what();
    Reply reply;
    reply.status = problem.status;
    reply.type = "application/problem+json";
    reply.body = body.dump(-1, ' ', false, QxNJson::json::Utf8ErrorMode::Replace);
    return reply;
}

std::optional<std::string> PercentDecode(std::string_view text, bool plusIsBlank) {
    std::string decoded;
    for (size_t at = 0; at < text.size(); ++at) {
        char c = text[at];
        if (c == '%') {
            if (text.size() - at < 3) {
                return std::nullopt;
            }
            const int high = HexDigit(text[at + 1]);
            const int low = HexDigit(text[at + 2]);
            if (high < 0 || low < 0) {
                return std::nullopt;
            }
            c = static_cast<char>(high * 16 + low);
            at += 2;
        } else if (c == '+' && plusIsBlank) {
            c = ' ';
        }
        if (c == '\0') {
            return std::nullopt;
        }
        decoded += c;
    }
    return decoded;
}

bool ParseTarget(std::string_view target, Request& request) {
    request.target = target;
    const std::string_view path = target.substr(0, target.find('?'));
    // Fragments stay with the client.
    if (!path.starts_with('/') || target.find('#') != std::string_view::npos) {
        return false;
    }
    for (std::string_view rest = path.substr(1); !rest.empty();) {
        const std::string_view segment = rest.substr(0, rest.find('/'));
        rest.remove_prefix(std::min(rest.size(), segment.size() + 1));
        const auto name = PercentDecode(segment, false);
        if (!name || name->empty() || *name == "." || *name == "..") {
            return false;
        }
        request.segments.push_back(*name);
    }
    const size_t question = target.find('?');
    return question == std::string_view::npos || ParseQuery(target.substr(question + 1), request);
}

bool IsFileName(std::string_view name) {
    return !name.empty() && name.size() <= LongestFileName && IsLetterOrDigit(name.front()) &&
           std::all_of(name.begin(), name.end(),
                       [](char c) { return IsLetterOrDigit(c) || c == '.' || c == '_' || c == '-'; });
}

}  // namespace QxNHttp
