#include "QxCCurlHandler.h"
#include "Recording.h"
#include "Sandbox.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* SocketPath = "/run/scripted.sock";
constexpr const char* Url = "http://board.example:8080/v1/things?all=true";

/// A server on a Unix socket that answers everything with 200.
struct UnixServer : ScriptedServer {
    UnixServer() : ScriptedServer(SocketPath, Answer(200, "unix")) {}
};

// --- Where the request goes ---

TEST(CurlHandler, SendsTheRequestToTheUnixSocketWhateverHostTheUrlNames) {
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl(Url);

    EXPECT_EQ(curl.Execute(), "unix");

    EXPECT_EQ(curl.GetHttpCode(), 200);
    ASSERT_EQ(server.Requests().size(), 1U);
    EXPECT_EQ(server.Requests()[0].line, "GET /v1/things?all=true HTTP/1.1");
    EXPECT_EQ(server.Requests()[0].Header("Host"), "board.example:8080");
}

TEST(CurlHandler, SendsTheRequestToTheTcpPortWhateverHostTheUrlNames) {
    const ScriptedServer server(ScriptedServer::Answer(200, "tcp"));
    QxCCurlHandler curl;
    curl.SetTcpSocket(server.Port());
    curl.SetUrl(Url);

    EXPECT_EQ(curl.Execute(), "tcp");

    EXPECT_EQ(server.Requests().at(0).Header("Host"), "board.example:8080");
}

TEST(CurlHandler, SendsTheRequestToTheUnixSocketAlsoWhenTheEnvironmentNamesAProxy) {
    const UnixServer server;
    setenv("http_proxy", "http://127.0.0.1:1", 1);
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl(Url);

    EXPECT_EQ(curl.Execute(), "unix");
    EXPECT_EQ(server.Requests().at(0).Target(), "/v1/things?all=true");
}

TEST(CurlHandler, AsksAProxyOfTheEnvironmentForTheTcpPortUnlessTheHostIsExcepted) {
    const ScriptedServer proxy(ScriptedServer::Answer(403));
    const ScriptedServer server(ScriptedServer::Answer(200, "tcp"));
    setenv("http_proxy", ("http://127.0.0.1:" + std::to_string(proxy.Port())).c_str(), 1);
    unsetenv("no_proxy");
    unsetenv("NO_PROXY");
    QxCCurlHandler curl;
    curl.SetTcpSocket(server.Port());
    curl.SetUrl(Url);

    EXPECT_EQ(curl.Execute(), "");
    EXPECT_EQ(proxy.Requests().at(0).line,
              "CONNECT 127.0.0.1:" + std::to_string(server.Port()) + " HTTP/1.1");
    EXPECT_THAT(server.Requests(), IsEmpty());

    setenv("no_proxy", "board.example", 1);
    EXPECT_EQ(curl.Execute(), "tcp");
}

TEST(CurlHandler, OfTheSocketsTheLastOneWins) {
    const UnixServer unixServer;
    const ScriptedServer tcpServer(ScriptedServer::Answer(200, "tcp"));
    QxCCurlHandler curl;
    curl.SetUrl(Url);

    curl.SetTcpSocket(tcpServer.Port());
    curl.SetUnixSocket(SocketPath);
    EXPECT_EQ(curl.Execute(), "unix");
    curl.SetTcpSocket(1);
    curl.SetTcpSocket(tcpServer.Port());
    EXPECT_EQ(curl.Execute(), "tcp");
}

TEST(CurlHandler, OfTheUrlsTheLastOneWinsAndIsCopied) {
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://a/first");
    {
        std::string second = "http://a/second";
        curl.SetUrl(second);
        second.assign(second.size(), 'x');
    }
    curl.Execute();

    EXPECT_EQ(server.Requests().at(0).Target(), "/second");
}

// --- Method ---

struct MethodCase {
    QxCCurlHandler::MethodType method;
    const char* word;
};

class Method : public testing::TestWithParam<MethodCase> {};

TEST_P(Method, FullyReplacesEveryEarlierOne) {
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");

    for (const auto earlier : {QxCCurlHandler::Get, QxCCurlHandler::Post, QxCCurlHandler::Delete}) {
        curl.SetMethodType(earlier);
        curl.SetMethodType(GetParam().method);
        curl.Execute();
    }

    for (const auto& request : server.Requests()) {
        EXPECT_EQ(request.line, std::string(GetParam().word) + " /x HTTP/1.1");
        EXPECT_EQ(request.body, "");
    }
    EXPECT_EQ(server.Requests().size(), 3U);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, Method,
                         testing::Values(MethodCase{QxCCurlHandler::Get, "GET"},
                                         MethodCase{QxCCurlHandler::Post, "POST"},
                                         MethodCase{QxCCurlHandler::Delete, "DELETE"}),
                         [](const auto& test) { return std::string(test.param.word); });

TEST(CurlHandler, AWrongMethodIsLoggedAndLeavesTheDefault) {
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");
    curl.SetMethodType(QxCCurlHandler::Delete);

    curl.SetMethodType(static_cast<QxCCurlHandler::MethodType>(3));

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container CURL Handler:Wrong Method Selected\n"));
    EXPECT_THAT(Recording::Messages(),
                ElementsAre("3 Quolex Container CURL Handler:Wrong Method Selected\n"));
    curl.Execute();
    EXPECT_EQ(server.Requests().at(0).line, "GET /x HTTP/1.1");
}

// --- Headers ---

TEST(CurlHandler, SendsTheHeadersInTheirOrder) {
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");
    curl.SetHeaders({"X-First: 1", "Accept: application/json", "X-Last: 2"});

    curl.Execute();

    EXPECT_THAT(server.Requests().at(0).headers,
                ElementsAre("Host: d", "X-First: 1", "Accept: application/json", "X-Last: 2"));
}

TEST(CurlHandler, SendsHeadersAsTheyAre) {
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");
    curl.SetHeaders({"Accept: \"a\"; b='c', %41", "X-Two: 1\r\nX-Smuggled: 2"});

    curl.Execute();

    EXPECT_THAT(server.Requests().at(0).headers,
                ElementsAre("Host: d", "Accept: \"a\"; b='c', %41", "X-Two: 1", "X-Smuggled: 2"));
}

TEST(CurlHandler, LaterHeadersReplaceEarlierOnesAndNoneClearThem) {
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");

    curl.SetHeaders({"X-Old: 1"});
    curl.SetHeaders({"X-New: 1"});
    curl.Execute();
    curl.SetHeaders({});
    curl.Execute();

    EXPECT_EQ(server.Requests().at(0).Header("X-Old"), "(none)");
    EXPECT_EQ(server.Requests().at(0).Header("X-New"), "1");
    EXPECT_THAT(server.Requests().at(1).headers, ElementsAre("Host: d", "Accept: */*"));
}

// --- Payload ---

TEST(CurlHandler, SendsACopyOfThePayloadZeroBytesIncluded) {
    const ScriptedServer server(SocketPath, ScriptedServer::Echo());
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");
    curl.SetMethodType(QxCCurlHandler::Post);
    const std::string expected("{\"a\":\0 1}", 9);
    {
        std::string payload = expected;
        curl.SetPayload(payload);
        payload.assign(payload.size(), 'x');
    }

    EXPECT_EQ(curl.Execute(), expected);
    EXPECT_EQ(server.Requests().at(0).Header("Content-Length"), "9");
}

TEST(CurlHandler, ThePayloadStaysWhenTheMethodIsSetAfterIt) {
    const ScriptedServer server(SocketPath, ScriptedServer::Echo());
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");

    curl.SetPayload("first");
    curl.SetPayload("second");
    curl.SetMethodType(QxCCurlHandler::Post);

    EXPECT_EQ(curl.Execute(), "second");
}

TEST(CurlHandler, ThePayloadWaitsWhileAnotherMethodIsSet) {
    const ScriptedServer server(SocketPath, ScriptedServer::Echo());
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");

    curl.SetPayload("payload");
    curl.SetMethodType(QxCCurlHandler::Get);
    EXPECT_EQ(curl.Execute(), "");
    curl.SetMethodType(QxCCurlHandler::Post);
    EXPECT_EQ(curl.Execute(), "payload");

    EXPECT_EQ(server.Requests().at(0).line, "GET /x HTTP/1.1");
    EXPECT_EQ(server.Requests().at(1).line, "POST /x HTTP/1.1");
}

TEST(CurlHandler, APostWithoutABodySendsNoneAndLeavesStandardInputAlone) {
    const UnixServer server;
    int input[2];
    ASSERT_EQ(pipe(input), 0);
    ASSERT_EQ(write(input[1], "secret", 6), 6);
    ASSERT_EQ(dup2(input[0], STDIN_FILENO), STDIN_FILENO);
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/containers/x/start");
    curl.SetMethodType(QxCCurlHandler::Post);

    EXPECT_EQ(curl.Execute(), "unix");

    EXPECT_EQ(server.Requests().at(0).Header("Content-Length"), "0");
    EXPECT_EQ(server.Requests().at(0).Header("Transfer-Encoding"), "(none)");
    char kept[8];
    EXPECT_EQ(read(STDIN_FILENO, kept, sizeof(kept)), 6);
}

// --- Status ---

TEST(CurlHandler, HasNoStatusBeforeTheRequest) {
    QxCCurlHandler curl;
    EXPECT_EQ(curl.GetHttpCode(), 0);
}

TEST(CurlHandler, GivesStatusAndBodyOfEveryAnswer) {
    for (const int status : {200, 201, 204, 301, 304, 400, 404, 409, 500, 599}) {
        const bool hasBody = status != 204 && status != 304;
        const ScriptedServer server(SocketPath, ScriptedServer::Answer(status, hasBody ? "text" : ""));
        QxCCurlHandler curl;
        curl.SetUnixSocket(SocketPath);
        curl.SetUrl("http://d/x");

        EXPECT_EQ(curl.Execute(), hasBody ? "text" : "") << status;
        EXPECT_EQ(curl.GetHttpCode(), status);
    }
}

TEST(CurlHandler, HasStatusZeroWhenNobodyListensAlsoAfterAnAnswer) {
    QxCCurlHandler curl;
    curl.SetUrl("http://d/x");
    {
        const UnixServer server;
        curl.SetUnixSocket(SocketPath);
        curl.Execute();
        EXPECT_EQ(curl.GetHttpCode(), 200);
    }

    EXPECT_EQ(curl.Execute(), "");

    EXPECT_EQ(curl.GetHttpCode(), 0);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(CurlHandler, WithoutAUrlGivesNothing) {
    QxCCurlHandler curl;
    EXPECT_EQ(curl.Execute(), "");
    EXPECT_EQ(curl.GetHttpCode(), 0);
}

// --- Log lines ---

TEST(CurlHandlerLog, TellsRequestAndAnswerWhenVerbose) {
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    const UnixServer server;
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");

    curl.Execute();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container CURL Handler:Executing request: http://d/x\n",
                            "[DEBUG_VERBOSE] Quolex Container CURL Handler:Response: unix\n",
                            "[DEBUG_VERBOSE] Quolex Container CURL Handler:HttpCode: 200\n"));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
}

TEST(CurlHandlerLog, TellsTheWholeBody) {
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    const std::string body = std::string(898, 'a') + "%s";
    const ScriptedServer server(SocketPath, ScriptedServer::Answer(200, body));
    QxCCurlHandler curl;
    curl.SetUnixSocket(SocketPath);
    curl.SetUrl("http://d/x");

    curl.Execute();

    EXPECT_EQ(Recording::Logs().at(1),
              "[DEBUG_VERBOSE] Quolex Container CURL Handler:Response: " + body + "\n");
}

TEST(CurlHandlerLog, TellsTheErrorOfTheTransferWhenVerbose) {
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    QxCCurlHandler curl;
    curl.SetUnixSocket("/run/nobody.sock");
    curl.SetUrl("http://d/x");

    curl.Execute();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container CURL Handler:Executing request: http://d/x\n",
                            "[DEBUG_VERBOSE] Quolex Container CURL Handler:Error message from CurlHandler: "
                            "Couldn't connect to server\n",
                            "[DEBUG_VERBOSE] Quolex Container CURL Handler:Response: \n",
                            "[DEBUG_VERBOSE] Quolex Container CURL Handler:HttpCode: 0\n"));
}

TEST(CurlHandlerLog, SaysNothingAtDebug) {
    Recording::TheScript().logLevel = "DEBUG";
    QxCCurlHandler curl;
    curl.SetUnixSocket("/run/nobody.sock");
    curl.SetUrl("http://d/x");

    curl.Execute();

    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

}  // namespace
