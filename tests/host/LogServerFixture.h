#pragma once

#include "Board.h"
#include "LogClient.h"
#include "LogServer.h"
#include "LogStreamClient.h"
#include "QxCContainer.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <functional>
#include <memory>

/// A log server before a Podman whose logs the test scripts. Containers have a terminal when their name begins with
/// "tty".
class LogServerTest : public testing::Test {
protected:
    using Connection = ScriptedServer::Connection;

    LogServerTest()
        : _podman(Board::PODMAN_SOCKET, [this](Connection& connection) {
              if (connection.request.Target().ends_with("/json")) {
                  inspect(connection);
              } else {
                  logs(connection);
              }
          }) {}

    void Serve(const LogServer::Limits& limits = {}) {
        server = std::make_unique<LogServer>(QxNContainer::QxCContainer::GetInstance(), 0, limits);
    }

    std::unique_ptr<LogClient> Connect(const std::string& target) {
        return std::make_unique<LogClient>(server->Port(), target);
    }

    std::vector<ScriptedServer::Request> Asked() const { return _podman.Requests(); }
    /// @return whether all streams get to end
    bool IsQuiet() const {
        return Sandbox::Eventually([&] { return server->Clients() == 0 && _podman.LiveConnections() == 0; });
    }

    /// Sends frames until the client is gone.
    static void Flood(Connection& connection) {
        connection.StartChunked();
        const std::string frames = LogFrame(std::string(20000, 'x')) + LogFrame(std::string(20000, 'y'));
        while (connection.SendChunk(frames)) {
        }
    }

    /// Sends one frame and then nothing.
    static void OneLine(Connection& connection) {
        connection.StartChunked();
        connection.SendChunk(LogFrame("line"));
        connection.WaitForEnd();
    }

    ScriptedServer::Script inspect = [](Connection& connection) {
        const bool isTty = connection.request.Target().find("/tty") != std::string::npos;
        ScriptedServer::SendAnswer(connection, 200,
                                   isTty ? R"({"Config":{"Tty":true}})" : R"({"Config":{}})");
    };
    ScriptedServer::Script logs = OneLine;
    std::unique_ptr<LogServer> server;

private:
    ScriptedServer _podman;
};
