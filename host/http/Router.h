#pragma once

#include "http/Message.h"

#include <functional>
#include <string>
#include <vector>

namespace QxNHttp {

/// What may follow "/api/v1": which requests there are, who may send them and who answers.
class Router {
public:
    using Handler = std::function<Task<Reply>(Request&)>;
    /// What goes on over a WebSocket; ends with it.
    using Stream = std::function<Task<void>(WebSocket&)>;
    using StreamHandler = std::function<Task<Stream>(Request&)>;

    /// @param pattern  such as "/containers/{container}/start": literal segments and places for any name. Where
    ///                 several match, the one that was added first counts.
    /// @param right    what the client needs
    void Add(Verb method, const std::string& pattern, Right right, Handler handler);
    /// A WebSocket; requests without an upgrade go to the GET handler of the same pattern.
    /// @param handler  called before the upgrade, which it may refuse by a Problem
    void AddStream(const std::string& pattern, Right right, StreamHandler handler);

    struct Route {
        Verb method;
        std::vector<std::string> pattern;
        Right right;
        Handler handler;
        StreamHandler stream;
    };

    /// @param segments  of the path behind "/api/v1"
    /// @throws Problem not found, upgrade required, or method not allowed with `allow` set to the methods that are
    const Route& Find(Verb method, const std::vector<std::string>& segments, bool wantsWebSocket,
                      std::string& allow) const;

private:
    std::vector<Route> _routes;
};

}  // namespace QxNHttp
