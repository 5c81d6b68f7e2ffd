#pragma once

#include "Board.h"
#include "LogHub.h"
#include "LogStreamClient.h"
#include "LogWatcher.h"
#include "QxCContainer.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// A log hub before a Podman with one container, "web", whose log the test scripts.
class LogHubTest : public testing::Test {
protected:
    using Connection = ScriptedServer::Connection;

    inline static const std::string Id = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

    LogHubTest() : _podman(Board::PODMAN_SOCKET, [this](Connection& connection) { Answer(connection); }) {}

    void Serve(const LogHub::Limits& limits = {}) {
        hub.reset();
        hub = std::make_unique<LogHub>(QxNContainer::QxCContainer::GetInstance(), limits);
    }

    LogHub::Opened Open(const LogStart& start = {}, const std::string& container = "web") {
        return hub->Open(container, start);
    }
    LogWatcher Watch(const LogStart& start = {}, size_t maxBytes = 65536) {
        LogHub::Opened opened = Open(start);
        if (opened.viewer == nullptr) {
            ADD_FAILURE() << opened.error.text;
            abort();
        }
        return LogWatcher(std::move(opened.viewer), maxBytes);
    }

    std::vector<ScriptedServer::Request> Asked() const { return _podman.Requests(); }
    /// @return targets of the requests for lines
    std::vector<std::string> LogRequests() const {
        std::vector<std::string> targets;
        for (const auto& request : Asked()) {
            if (IsLog(request.Target())) {
                targets.push_back(request.Target());
            }
        }
        return targets;
    }
    int LiveConnections() const { return _podman.LiveConnections(); }

    /// @return a time in the first minute of a day
    static std::string Time(int milliseconds) {
        char text[64];
        snprintf(text, sizeof(text), "2026-01-31T00:%02d:%02d.%03d000000Z", milliseconds / 60000,
                 milliseconds / 1000 % 60, milliseconds % 1000);
        return text;
    }
    static std::string Frame(int milliseconds, const std::string& text, char stream = 1) {
        return LogFrame(Time(milliseconds) + " " + text, stream);
    }
    static std::string Line(int milliseconds, const std::string& text, char stream = 1) {
        return Frame(milliseconds, text + "\n", stream);
    }
    /// Numbered lines, a millisecond apart.
    static std::string NumberedLines(int first, int last) {
        std::string frames;
        for (int i = first; i <= last; ++i) {
            frames += Line(i, std::to_string(i));
        }
        return frames;
    }

    static std::string State(const std::string& status, int exitCode = 0, bool hasTerminal = false,
                             const std::string& id = Id) {
        return R"({"Id":")" + id + R"(","Name":"web","State":{"Status":")" + status + R"(","ExitCode":)" +
               std::to_string(exitCode) + R"(,"FinishedAt":"2026-01-31T00:00:00Z"},"Config":{"Tty":)" +
               (hasTerminal ? "true" : "false") + "}}";
    }

    static bool IsLog(const std::string& target) { return target.find("/logs?") != std::string::npos; }
    static bool IsFollow(const std::string& target) {
        return target.find("follow=true") != std::string::npos;
    }

    /// Sends frames, then nothing until the client has gone.
    static ScriptedServer::Script Silent(const std::string& frames) {
        return [frames](Connection& connection) {
            connection.StartChunked();
            if (!frames.empty()) {
                connection.SendChunk(frames);
            }
            connection.WaitForEnd();
        };
    }

    /// A script that may be set while another thread uses it.
    class SharedScript {
    public:
        explicit SharedScript(ScriptedServer::Script script) : _script(std::move(script)) {}
        SharedScript& operator=(ScriptedServer::Script script) {
            const std::lock_guard lock(_mutex);
            _script.swap(script);
            return *this;
        }
        void Run(Connection& connection) const {
            ScriptedServer::Script script;
            {
                const std::lock_guard lock(_mutex);
                script = _script;
            }
            script(connection);
        }

    private:
        mutable std::mutex _mutex;
        ScriptedServer::Script _script;
    };

    // What Podman answers.
    SharedScript inspect{ScriptedServer::Answer(200, State("running"))};
    SharedScript history{ScriptedServer::Answer(200)};
    SharedScript follow{Silent("")};
    std::unique_ptr<LogHub> hub;

private:
    void Answer(Connection& connection) {
        const std::string target = connection.request.Target();
        if (!IsLog(target)) {
            inspect.Run(connection);
        } else if (IsFollow(target)) {
            follow.Run(connection);
        } else {
            history.Run(connection);
        }
    }

    ScriptedServer _podman;
};
