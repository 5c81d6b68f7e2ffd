#include "http/Router.h"

#include <algorithm>
#include <boost/beast/http/verb.hpp>

namespace QxNHttp {

namespace {

std::vector<std::string> Split(const std::string& pattern) {
    Request request;
    ParseTarget(pattern, request);
    return request.segments;
}

bool Matches(const std::vector<std::string>& pattern, const std::vector<std::string>& segments) {
    return std::equal(pattern.begin(), pattern.end(), segments.begin(), segments.end(),
                      [](const std::string& place, const std::string& name) {
                          return place.starts_with('{') || place == name;
                      });
}

}  // namespace

void Router::Add(Verb method, const std::string& pattern, Right right, Handler handler) {
    _routes.push_back({method, Split(pattern), right, std::move(handler), nullptr});
}

void Router::AddStream(const std::string& pattern, Right right, StreamHandler handler) {
    _routes.push_back({Verb::get, Split(pattern), right, nullptr, std::move(handler)});
}

const Router::Route& Router::Find(Verb method, const std::vector<std::string>& segments, bool wantsWebSocket,
                                  std::string& allow) const {
    bool isWebSocket = false;
    for (const Route& route : _routes) {
        if (!Matches(route.pattern, segments)) {
            continue;
        }
        if (route.method == method && (route.stream != nullptr) == wantsWebSocket) {
            return route;
        }
        isWebSocket = isWebSocket || route.stream != nullptr;
        const std::string name(boost::beast::http::to_string(route.method));
        if (route.stream == nullptr && allow.find(name) == std::string::npos) {
            allow += (allow.empty() ? "" : ", ") + name;
        }
    }
    if (allow.empty() && isWebSocket) {
        throw Problem(Status::upgrade_required, "This address is a WebSocket.");
    }
    if (allow.empty()) {
        throw Problem(Status::not_found,
                      "There is nothing at this address; /api/v1/openapi.yaml says what there is.");
    }
    throw Problem(Status::method_not_allowed, wantsWebSocket ? "This address is no WebSocket."
                                                             : "This address knows only " + allow + ".");
}

}  // namespace QxNHttp
