#include "Endpoint.h"

#include "CtlError.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <sys/un.h>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>

namespace {

/// Longer than any token of the daemon.
constexpr size_t LongestToken = 1000;

std::string FromEnvironment(const char* name) {
    const char* const value = getenv(name);
    return value != nullptr ? value : "";
}

[[noreturn]] void Refuse(const std::string& text) { throw CtlError(ExitCode::Usage, text); }

bool IsLoopback(const std::string& host) {
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return ntohl(v4.s_addr) >> 24 == 127;
    }
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&v6);
    }
    return host == "localhost";
}

using ParsedUrl = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

/// @return empty when the address has no such part
std::string PartOf(const ParsedUrl& url, CURLUPart part, unsigned int flags = 0) {
    char* text = nullptr;
    if (curl_url_get(url.get(), part, &text, flags) != CURLUE_OK) {
        return {};
    }
    std::string result = text;
    curl_free(text);
    return result;
}

void ReadAddress(const std::string& address, Endpoint& endpoint) {
    const ParsedUrl url(curl_url(), &curl_url_cleanup);
    if (curl_url_set(url.get(), CURLUPART_URL, address.c_str(), 0) != CURLUE_OK) {
        Refuse("'" + address + "' is no address; one looks like https://board:8443");
    }
    const std::string path = PartOf(url, CURLUPART_PATH);
    if ((path != "/" && !path.empty()) || !PartOf(url, CURLUPART_QUERY).empty() ||
        !PartOf(url, CURLUPART_USER).empty() || !PartOf(url, CURLUPART_FRAGMENT).empty()) {
        Refuse("an address is only scheme, host and port, such as https://board:8443");
    }
    endpoint.host = PartOf(url, CURLUPART_HOST);
    if (endpoint.host.size() > 2 && endpoint.host.front() == '[') {
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    }
    endpoint.port = PartOf(url, CURLUPART_PORT, CURLU_DEFAULT_PORT);
    const std::string scheme = PartOf(url, CURLUPART_SCHEME);
    endpoint.isTls = scheme == "https";
    if (scheme != "https" && scheme != "http") {
        Refuse("an address begins with https:// (or http:// on this machine)");
    }
    if (!endpoint.isTls && !IsLoopback(endpoint.host)) {
        Refuse("a token would cross the network for all to read; use https:// for '" + endpoint.host + "'");
    }
}

std::string ReadToken(const std::optional<std::string>& file) {
    std::string token;
    if (file) {
        std::ifstream stream(*file);
        token.resize(LongestToken + 1);
        stream.read(token.data(), static_cast<std::streamsize>(token.size()));
        token.resize(static_cast<size_t>(stream.gcount()));
        if (stream.bad() || !stream.is_open()) {
            Refuse("cannot read the token file '" + *file + "'");
        }
    } else {
        token = FromEnvironment("QXCTL_TOKEN");
    }
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    const auto isWrong = [](char c) { return c <= ' ' || c > '~'; };
    if (token.size() > LongestToken || std::any_of(token.begin(), token.end(), isWrong)) {
        Refuse("what '" + (file ? *file : std::string("QXCTL_TOKEN")) + "' holds is no token");
    }
    if (file && token.empty()) {
        Refuse("the token file '" + *file + "' is empty");
    }
    return token;
}

}  // namespace

std::string Endpoint::Authority() const {
    if (IsLocalSocket()) {
        return "localhost";
    }
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + port;
}

std::string Endpoint::BaseUrl() const { return (isTls ? "https://" : "http://") + Authority(); }

std::string Endpoint::Name() const { return IsLocalSocket() ? "the socket " + socketPath : BaseUrl(); }

Endpoint MakeEndpoint(const ConnectionOptions& options) {
    Endpoint endpoint;
    if (options.address) {
        if (options.socket) {
            Refuse("say either --socket or --address");
        }
        ReadAddress(*options.address, endpoint);
        endpoint.token = ReadToken(options.tokenFile);
        endpoint.caFile = options.ca.value_or("");
        return endpoint;
    }
    const std::string fromEnvironment = FromEnvironment("QXCTL_SOCKET");
    endpoint.socketPath = options.socket            ? *options.socket
                          : fromEnvironment.empty() ? std::string(DefaultSocket)
                                                    : fromEnvironment;
    if (endpoint.socketPath.empty() || endpoint.socketPath.size() >= sizeof(sockaddr_un::sun_path)) {
        Refuse("'" + endpoint.socketPath + "' cannot be the path of a socket");
    }
    return endpoint;
}
