#pragma once

#include "BoardTest.h"
#include "QxNJson.h"

#include <string>
#include <vector>

/// The daemon's interface, asked with curl.
namespace OnBoard {

/// What the interface answers.
struct Answer {
    int status = 0;
    std::string text;
    QxNJson::json Json() const { return QxNJson::json::parse(text); }
    std::string Detail() const { return Json()["detail"].get<std::string>(); }
};

inline Answer Curl(const std::string& words) {
    const std::string output = Shell("curl -s -m 60 -w '\n%{http_code}' " + words).output;
    const size_t end = output.rfind('\n');
    return {std::stoi("0" + output.substr(end + 1)), output.substr(0, end)};
}

/// Over the Unix socket.
inline Answer Ask(const std::string& path, const std::string& words = {}) {
    return Curl("--path-as-is --unix-socket /run/qxcontainerd/api.sock " + words + " 'http://board/api/v1" +
                path + "'");
}

inline Answer Post(const std::string& path, const std::string& words = {}) {
    return Ask(path, "-X POST " + words);
}

inline std::string State() {
    const QxNJson::json service = Ask("/service").Json();
    return service.contains("state") ? service["state"].get<std::string>() : std::string();
}

/// @param right  "look" or "act"
inline std::string MakeToken(const std::string& right) {
    return Post("/tokens", "-d '{\"name\":\"" + right + "\",\"right\":\"" + right + "\"}'")
        .Json()["token"]
        .get<std::string>();
}

inline bool Becomes(const std::string& state) {
    return Eventually([&] { return State() == state; });
}

/// What the check says now.
class Checks {
public:
    std::string Verdict(const std::string& id) const { return Member(id, "verdict"); }
    std::string Found(const std::string& id) const { return Member(id, "found"); }
    std::string Remedy(const std::string& id) const { return Member(id, "remedy"); }

private:
    std::string Member(const std::string& id, const char* name) const {
        for (const auto& check : _answer["checks"]) {
            if (check["id"] == id) {
                return check[name].get<std::string>();
            }
        }
        return "(no such check)";
    }

    const QxNJson::json _answer = Ask("/check").Json();
};

/// The daemon with a service that runs.
class ApiOnBoard : public testing::Test {
protected:
    explicit ApiOnBoard(const std::vector<std::string>& more = {}) : daemon(Options(more)) {
        EXPECT_TRUE(Becomes("running"));
    }

    static std::vector<std::string> Options(const std::vector<std::string>& more) {
        ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
        std::vector<std::string> options{"--enable", "--cores",         "1",  "--liveness-interval",
                                         "0.5",      "--restart-delay", "0.2"};
        options.insert(options.end(), more.begin(), more.end());
        return options;
    }

    static void RunContainer(const std::string& name, const std::string& command) {
        ImportBusybox();
        Output("podman run -d --network=none --name " + name + " localhost/busybox:1 sh -c '" + command +
               "'");
    }

    Daemon daemon;
};

}  // namespace OnBoard
