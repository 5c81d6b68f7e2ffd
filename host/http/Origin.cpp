#include "http/Origin.h"

#include <strings.h>
#include <algorithm>

namespace QxNHttp {

namespace {

constexpr size_t LongestPort = 5;

bool IsPort(std::string_view text) {
    return text.empty() ||
           (text.size() > 1 && text.size() <= LongestPort + 1 && text[0] == ':' &&
            std::all_of(text.begin() + 1, text.end(), [](char c) { return c >= '0' && c <= '9'; }));
}

}  // namespace

std::string_view HostOf(std::string_view authority) {
    const bool isBracketed = authority.starts_with('[');
    const size_t end = isBracketed ? authority.find(']') : authority.find(':');
    if (isBracketed && end == std::string_view::npos) {
        return {};
    }
    const std::string_view host = authority.substr(0, isBracketed ? end + 1 : end);
    return IsPort(authority.substr(host.size())) ? host : std::string_view();
}

bool IsSameHost(std::string_view left, std::string_view right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

bool IsLoopbackName(std::string_view host) {
    return IsSameHost(host, "localhost") || host == "127.0.0.1" || host == "[::1]";
}

bool IsSameOrigin(std::string_view origin, std::string_view authority, bool isTls) {
    const std::string_view scheme = isTls ? "https://" : "http://";
    return origin.starts_with(scheme) && IsSameHost(origin.substr(scheme.size()), authority);
}

}  // namespace QxNHttp
