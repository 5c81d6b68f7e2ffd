#pragma once

#include "Endpoint.h"
#include "Progress.h"
#include "QxNJson.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

/// A request to the daemon.
struct HttpRequest {
    std::string method = "GET";
    std::string target{};       ///< as ApiPath makes it
    std::string contentType{};  ///< of the body; empty: there is none
    std::string body{};
    std::string file{};  ///< whose content is the body, instead of `body`
    /// How work goes on that may take long; nothing: it takes no longer than a minute.
    Progress* progress = nullptr;
    /// Takes a good answer's body piece by piece, which may have any size then. Returns false when it has enough.
    std::function<bool(std::string_view)> sink{};
    long timeoutMs = 60000;  ///< without progress
};

struct HttpAnswer {
    long status = 0;
    std::string body;  ///< empty when there was a sink

    QxNJson::json Json() const;
};

/// Asks the daemon over HTTP. One answer has at most 64 MiB.
class Client {
public:
    explicit Client(Endpoint endpoint);
    ~Client();

    const Endpoint& Where() const { return _endpoint; }

    /// @return the answer, which is a good one: refusals, broken connections and answers that are no HTTP are CtlErrors
    HttpAnswer Send(const HttpRequest& request);

private:
    struct Transfer;

    const Endpoint _endpoint;
    std::unique_ptr<void, void (*)(void*)> _curl;
};
