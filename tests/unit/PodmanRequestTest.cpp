#include "Board.h"
#include "CurlHandlerOptions.h"
#include "QxCContainer.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <stdexcept>
#include <thread>

using QxNContainer::QxCContainer;
using Recording::TheScript;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// Podman's REST service with a script of the test.
struct PodmanService : ScriptedServer {
    explicit PodmanService(Script script) : ScriptedServer(Board::PODMAN_SOCKET, std::move(script)) {}
};

/// @return the service, with what its construction recorded forgotten
QxCContainer& Service() {
    QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    return service;
}

PodmanResponse Get(const std::string& endpoint) {
    return QxCContainer::GetInstance().ExecutePodmanRequest(endpoint, QxCCurlHandler::Get, {}, {}, false);
}

// --- One request ---

TEST(PodmanRequest, GoesToTheSocketUnderTheVersionOfTheApi) {
    const PodmanService podman(ScriptedServer::Answer(201, "{}"));

    const PodmanResponse response = Service().ExecutePodmanRequest(
        "/containers/json?all=true", QxCCurlHandler::Get, {"Accept: application/json", "X-A: b"}, {}, false);

    EXPECT_EQ(response.httpCode, 201);
    EXPECT_EQ(response.body, "{}");
    EXPECT_EQ(podman.Requests().at(0).line, "GET /v5.8.1/containers/json?all=true HTTP/1.1");
    EXPECT_THAT(podman.Requests().at(0).headers,
                ElementsAre("Host: localhost", "Accept: application/json", "X-A: b"));
}

TEST(PodmanRequest, ConfigureTargetsTheSocketAndSetsNothingElse) {
    QxCCurlHandler curl;
    CurlOptions::Record();

    EXPECT_EQ(Service().ConfigureCurlForPodman(curl), "http://localhost");

    EXPECT_THAT(CurlOptions::Recorded(),
                ElementsAre("CONNECT_TO=null", "UNIX_SOCKET_PATH=/run/podman/podman.sock"));
}

TEST(PodmanRequest, IsConfiguredInAFixedOrder) {
    Sandbox::WriteFile("/tmp/file", "abc");
    QxCContainer& service = Service();
    CurlOptions::Record();

    service.ExecutePodmanRequest("/x", QxCCurlHandler::Delete, {"A: b"}, "/tmp/file", false);

    EXPECT_THAT(CurlOptions::Recorded(),
                ElementsAre("CONNECT_TO=null", "UNIX_SOCKET_PATH=/run/podman/podman.sock",
                            "CUSTOMREQUEST=null", "POST=0", "HTTPGET=0", "CUSTOMREQUEST=DELETE",
                            "URL=http://localhost/v5.8.1/x", "HTTPHEADER=A: b", "POSTFIELDS=null",
                            "READFUNCTION=set", "READDATA=set", "POSTFIELDSIZE_LARGE=3", "WRITEFUNCTION=set",
                            "WRITEDATA=set", "perform", "free A: b", "fclose", "cleanup"));
}

TEST(PodmanRequest, GivesStatusAndBodyOfAnError) {
    const PodmanService podman(ScriptedServer::Answer(404, R"({"message": "no such container"})"));

    const PodmanResponse response = Get("/containers/ghost/json");

    EXPECT_EQ(response.httpCode, 404);
    EXPECT_EQ(response.body, R"({"message": "no such container"})");
}

TEST(PodmanRequest, GivesZeroAndNothingWhenPodmanDoesNotRun) {
    QxCContainer& service = Service();

    const PodmanResponse response = service.ExecutePodmanRequest("/x", QxCCurlHandler::Get, {}, {}, false);

    EXPECT_EQ(response.httpCode, 0);
    EXPECT_EQ(response.body, "");
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(PodmanRequest, TakesTheEndpointAsItIs) {
    const PodmanService podman(ScriptedServer::Answer(200));

    for (const char* endpoint : {"containers", "", "?a=b", "/%20%2f", "/a;b&c='d'"}) {
        EXPECT_EQ(Get(endpoint).httpCode, 200);
        EXPECT_EQ(podman.Requests().back().Target(), std::string("/v5.8.1") + endpoint);
    }
}

TEST(PodmanRequest, RefusesEndpointsThatAreNoUrl) {
    const PodmanService podman(ScriptedServer::Answer(200));

    for (const char* endpoint : {"/a b", "/a\r\nX-Smuggled: 1", "/a\n", "/a\tb", "/\x01"}) {
        EXPECT_EQ(Get(endpoint).httpCode, 0) << endpoint;
        EXPECT_EQ(Get(endpoint).body, "") << endpoint;
    }
    EXPECT_THAT(podman.Requests(), IsEmpty());
}

TEST(PodmanRequest, CarriesAnEndpointOf100Kilobytes) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    const PodmanService podman(ScriptedServer::Answer(200, "long"));
    const std::string endpoint = "/" + std::string(100000, 'a');

    EXPECT_EQ(Get(endpoint).body, "long");

    EXPECT_TRUE(podman.Requests().at(0).Target() == "/v5.8.1" + endpoint);
}

TEST(PodmanRequest, UploadsAFile) {
    const PodmanService podman(ScriptedServer::Echo());
    Sandbox::WriteFile("/tmp/image.tar", "layers");

    const PodmanResponse response = Service().ExecutePodmanRequest(
        "/images/load", QxCCurlHandler::Post, {"Content-Type: application/x-tar"}, "/tmp/image.tar", false);

    EXPECT_EQ(response.body, "layers");
    EXPECT_EQ(podman.Requests().at(0).Header("Content-Type"), "application/x-tar");
}

TEST(PodmanRequest, IsSentWithoutABodyWhenTheFileCannotBeOpened) {
    const PodmanService podman(ScriptedServer::Echo());

    const PodmanResponse response =
        Service().ExecutePodmanRequest("/images/load", QxCCurlHandler::Post, {}, "/tmp/missing", false);

    EXPECT_EQ(response.httpCode, 200);
    EXPECT_EQ(podman.Requests().at(0).body, "");
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container CURL Handler:Error opening file: /tmp/missing\n"));
}

TEST(PodmanRequest, MayBeMadeFromManyThreadsAtOnce) {
    const PodmanService podman([](ScriptedServer::Connection& connection) {
        ScriptedServer::SendAnswer(connection, 200, connection.request.Target());
    });
    QxCContainer& service = Service();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&service, thread] {
            for (int i = 0; i < 20; ++i) {
                const std::string endpoint = "/" + std::to_string(thread) + "/" + std::to_string(i);
                EXPECT_EQ(service.ExecutePodmanRequest(endpoint, QxCCurlHandler::Get, {}, {}, false).body,
                          "/v5.8.1" + endpoint);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(podman.Requests().size(), 160U);
}

// --- Write-through mode ---

class WriteThroughRequest : public testing::Test {
protected:
    WriteThroughRequest()
        : _podman([this](ScriptedServer::Connection& connection) {
              _modeWhileItRan = Sandbox::ReadFile(Board::WriteCache);
              ScriptedServer::SendAnswer(connection, 200, "done");
          }) {
        Board::ProvideUserStorage();
    }

    PodmanResponse Request(bool writeThrough) {
        return Service().ExecutePodmanRequest("/x", QxCCurlHandler::Get, {}, {}, writeThrough);
    }
    std::string ModeWhileItRan() const { return _modeWhileItRan; }
    static std::string Mode() { return Sandbox::ReadFile(Board::WriteCache); }

private:
    std::string _modeWhileItRan;
    PodmanService _podman;
};

TEST_F(WriteThroughRequest, RunsInWriteThroughModeAndRestoresWriteBack) {
    EXPECT_EQ(Request(true).body, "done");
    EXPECT_EQ(ModeWhileItRan(), "write through");
    EXPECT_EQ(Mode(), "write back");
}

TEST_F(WriteThroughRequest, SwitchesBackOnlyAfterTheConnectionIsClosed) {
    CurlOptions::Record();
    CurlOptions::OnCleanup([] { EXPECT_EQ(Mode(), "write through"); });
    Request(true);
    EXPECT_THAT(CurlOptions::Recorded(), Contains("cleanup"));
    EXPECT_EQ(Mode(), "write back");
}

TEST_F(WriteThroughRequest, SwitchesBeforeAnythingElse) {
    CurlOptions::Record();
    TheScript().onEvent = [](const std::string& event) {
        if (event == "getState(6, 0)") {
            EXPECT_THAT(CurlOptions::Recorded(), IsEmpty());
        }
    };
    Request(true);
    EXPECT_THAT(Recording::Events(), Contains("getState(6, 0)"));
}

TEST_F(WriteThroughRequest, TouchesNothingUnlessAskedFor) {
    EXPECT_EQ(Request(false).body, "done");
    EXPECT_EQ(ModeWhileItRan(), "write back");
    EXPECT_THAT(Recording::Events(), IsEmpty());
}

TEST_F(WriteThroughRequest, IsMadeAlsoWhenTheSwitchFails) {
    std::filesystem::remove_all("/sys/block/sda");
    EXPECT_EQ(Request(true).body, "done");
    EXPECT_THAT(Recording::Logs(), Contains(HasSubstr("Failed to set 'write through'")));
}

TEST_F(WriteThroughRequest, RestoresAlsoWhenTheRequestIsLeftByAnException) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    QxCContainer& service = Service();
    TheScript().onEvent = [](const std::string& event) {
        if (event.find("HttpCode: 200") != std::string::npos) {
            throw std::runtime_error("no space for the log");
        }
    };
    const auto run = [&] {
        EXPECT_THROW(service.ExecutePodmanRequest("/x", QxCCurlHandler::Get, {}, {}, true),
                     std::runtime_error);
        return Sandbox::OpenDescriptors().size();
    };
    // The server holds the last connection until the next one comes.
    const size_t after = run();

    EXPECT_EQ(ModeWhileItRan(), "write through");
    EXPECT_EQ(Mode(), "write back");
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(run(), after);
    }
}

// --- Terminal or not ---

struct TtyCase {
    const char* name;
    int status;
    const char* body;
    bool isTty;
    std::vector<std::string> logs;
};

class ContainerTty : public testing::TestWithParam<TtyCase> {};

TEST_P(ContainerTty, ComesFromTheInspection) {
    const TtyCase& expected = GetParam();
    const PodmanService podman(ScriptedServer::Answer(expected.status, expected.body));

    EXPECT_EQ(Service().IsContainerTty("web-1"), expected.isTty);

    EXPECT_EQ(podman.Requests().at(0).line, "GET /v5.8.1/containers/web-1/json HTTP/1.1");
    EXPECT_THAT(podman.Requests().at(0).headers, ElementsAre("Host: localhost", "Accept: application/json"));
    EXPECT_EQ(Recording::Logs(), expected.logs);
}

std::vector<std::string> FailedWith(const std::string& code) {
    return {"[ERROR] Quolex Container Service: Podman GET /containers/web-1/json failed with HTTP " + code +
            ", assuming no TTY"};
}

const std::vector<std::string> ParseFailure = {
    "[ERROR] Quolex Container Service: Failed to parse inspect result for container 'web-1'"};

INSTANTIATE_TEST_SUITE_P(
    Answers, ContainerTty,
    testing::Values(TtyCase{"Yes", 200, R"({"Config": {"Tty": true}})", true, {}},
                    TtyCase{"YesWith299", 299, R"({"Config": {"Tty": true}})", true, {}},
                    TtyCase{"No", 200, R"({"Config": {"Tty": false}})", false, {}},
                    TtyCase{"Text", 200, R"({"Config": {"Tty": "true"}})", false, {}},
                    TtyCase{"Number", 200, R"({"Config": {"Tty": 1}})", false, {}},
                    TtyCase{"Null", 200, R"({"Config": {"Tty": null}})", false, {}},
                    TtyCase{"NoTty", 200, R"({"Config": {}})", false, {}},
                    TtyCase{"ConfigIsAnArray", 200, R"({"Config": ["Tty"]})", false, {}},
                    TtyCase{"ConfigIsNull", 200, R"({"Config": null})", false, {}},
                    TtyCase{"ConfigIsText", 200, R"({"Config": "Tty"})", false, {}},
                    TtyCase{"NoConfig", 200, R"({"Tty": true})", false, ParseFailure},
                    TtyCase{"Array", 200, R"([{"Config": {"Tty": true}}])", false, ParseFailure},
                    TtyCase{"OtherText", 200, "\"Config\"", false, ParseFailure},
                    TtyCase{"Malformed", 200, R"({"Config": {"Tty": true})", false, ParseFailure},
                    TtyCase{"NotUtf8", 200, "{\"Config\": \"\xff\"}", false, ParseFailure},
                    TtyCase{"Empty", 200, "", false, ParseFailure},
                    TtyCase{"Interim", 199, "", false, FailedWith("199")},
                    TtyCase{"NotFound", 404, R"({"Config": {"Tty": true}})", false, FailedWith("404")},
                    TtyCase{"Redirected", 300, R"({"Config": {"Tty": true}})", false, FailedWith("300")},
                    TtyCase{"ServerError", 500, "", false, FailedWith("500")}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(ContainerTty, IsAskedForTheNameAsItIs) {
    const PodmanService podman(ScriptedServer::Answer(200, R"({"Config": {"Tty": true}})"));
    EXPECT_TRUE(Service().IsContainerTty("a%2f?x=y/z"));
    EXPECT_EQ(podman.Requests().at(0).Target(), "/v5.8.1/containers/a%2f?x=y/z/json");
}

TEST(ContainerTty, IsAssumedToBeAbsentWhenPodmanDoesNotRun) {
    EXPECT_FALSE(Service().IsContainerTty("web-1"));
    EXPECT_EQ(Recording::Logs(), FailedWith("0"));
}

TEST(ContainerTty, SendsNoLineFeedWithItsMessages) {
    Service().IsContainerTty("web-1");
    EXPECT_THAT(Recording::Messages(),
                ElementsAre("3 Quolex Container Service: Podman GET /containers/web-1/json failed with HTTP "
                            "0, assuming no TTY"));
}

TEST(ContainerTty, NeverSwitchesTheDisk) {
    Board::ProvideUserStorage();
    Service().IsContainerTty("web-1");
    EXPECT_THAT(Recording::Events("getState"), IsEmpty());
}

}  // namespace
