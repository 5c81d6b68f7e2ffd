#include "LogRequest.h"

#include <strings.h>
#include <algorithm>

namespace {

constexpr size_t LongestName = 255;
constexpr size_t LongestTail = 9;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsAlphanumeric(char c) { return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool IsNumber(std::string_view text, size_t longest) {
    return !text.empty() && text.size() <= longest && std::all_of(text.begin(), text.end(), IsDigit);
}

bool IsContainerName(std::string_view name) {
    return !name.empty() && name.size() <= LongestName && IsAlphanumeric(name[0]) &&
           std::all_of(name.begin(), name.end(),
                       [](char c) { return IsAlphanumeric(c) || c == '_' || c == '.' || c == '-'; });
}

bool TakePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

}  // namespace

std::optional<LogRequest> LogRequest::Parse(std::string_view target) {
    LogRequest request;
    if (!TakePrefix(target, "/logs/")) {
        return {};
    }
    const size_t query = target.find('?');
    if (query != std::string_view::npos) {
        std::string_view tail = target.substr(query);
        if (!TakePrefix(tail, "?tail=") || !(tail == "all" || IsNumber(tail, LongestTail))) {
            return {};
        }
        request.tail = tail;
    }
    request.container = target.substr(0, query);
    return IsContainerName(request.container) ? std::optional(request) : std::nullopt;
}

std::string LogRequest::Endpoint() const {
    return "/containers/" + container +
           "/logs?follow=true&stdout=true&stderr=true&timestamps=false&tail=" + tail;
}

bool IsLoopbackAuthority(std::string_view authority) {
    for (const std::string_view host : {"localhost", "127.0.0.1", "[::1]"}) {
        if (authority.size() >= host.size() && strncasecmp(authority.data(), host.data(), host.size()) == 0) {
            const std::string_view port = authority.substr(host.size());
            return port.empty() || (port[0] == ':' && IsNumber(port.substr(1), 5));
        }
    }
    return false;
}

bool IsLoopbackOrigin(std::string_view origin) {
    return (TakePrefix(origin, "http://") || TakePrefix(origin, "https://")) && IsLoopbackAuthority(origin);
}
