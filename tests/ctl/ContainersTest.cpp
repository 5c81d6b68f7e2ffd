#include "CtlRun.h"
#include "ScriptedDaemon.h"

#include <gmock/gmock.h>

using CtlRun::Result;
using CtlRun::RunCtl;
using CtlRun::RunOnTerminal;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

class CtlContainers : public testing::Test {
protected:
    ScriptedDaemon daemon;
};

constexpr const char* TwoContainers =
    R"({"containers":[{"id":"6f3b5cdd1c2a0e4f6a7b8c9d0e1f2a3b","name":"clock","image":"localhost/busybox:1",)"
    R"("state":"running","status":"Up 3 minutes","created":"2021-11-21T19:01:00Z","exitCode":0,"project":"","ports":[]},)"
    R"x({"id":"0123456789abcdef","name":"größe-日本","image":"i\u001b]0;x\u0007","state":"exited","status":"Exited (1)",)x"
    R"("created":"2021-11-21T19:01:00Z","exitCode":1,"project":"demo","ports":["80/tcp","443/tcp"]}]})";

TEST_F(CtlContainers, ListsThem) {
    daemon.On("GET /containers", {200, TwoContainers});

    const Result result = RunCtl({"ps"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output,
              "NAME        ID            STATE    STATUS        IMAGE                PROJECT  PORTS\n"
              "clock       6f3b5cdd1c2a  running  Up 3 minutes  localhost/busybox:1\n"
              "größe-日本  0123456789ab  exited   Exited (1)    i\uFFFD]0;x\uFFFD              demo     "
              "80/tcp, 443/tcp\n");
    EXPECT_EQ(RunCtl({"ps", "--json"}).output, std::string(TwoContainers) + "\n");
}

TEST_F(CtlContainers, LetsNoControlCharacterReachATerminal) {
    daemon.On("GET /containers", {200, TwoContainers});
    daemon.On("GET /containers/clock", {200, "{\"Name\":\"a\xC2\x9B\x33\x31m\x7F\"}"});

    EXPECT_THAT(RunOnTerminal({"ps"}).output, Not(HasSubstr("\x1b]")));
    EXPECT_THAT(RunOnTerminal({"inspect", "clock", "--json"}).output, Not(HasSubstr("\xC2\x9B")));
    EXPECT_THAT(RunOnTerminal({"inspect", "clock"}).output, HasSubstr("a\uFFFD31m\uFFFD"));
    EXPECT_THAT(RunCtl({"inspect", "clock", "--json"}).output, HasSubstr("\xC2\x9B"));
}

TEST_F(CtlContainers, ListsNone) {
    daemon.On("GET /containers", {200, R"({"containers":[]})"});

    EXPECT_EQ(RunCtl({"ps"}).output, "NAME  ID  STATE  STATUS  IMAGE  PROJECT  PORTS\n");
}

TEST_F(CtlContainers, InspectsOne) {
    daemon.On("GET /containers/clock", {200, R"({"Id":"6f","State":{"Pid":7}})"});

    EXPECT_EQ(RunCtl({"inspect", "clock"}).output,
              "{\n    \"Id\": \"6f\",\n    \"State\": {\n        \"Pid\": 7\n    }\n}\n");
    EXPECT_EQ(RunCtl({"inspect", "--json", "clock"}).output, "{\"Id\":\"6f\",\"State\":{\"Pid\":7}}\n");
}

TEST_F(CtlContainers, TakesOneThroughItsActions) {
    for (const auto& [action, done] :
         {std::pair("start", "started"), std::pair("stop", "stopped"), std::pair("restart", "restarted")}) {
        daemon.On(std::string("POST /containers/clock/") + action, {204, ""});

        const Result result = RunCtl({"container", action, "clock"});

        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.output, std::string("clock ") + done + "\n");
        EXPECT_EQ(daemon.Requests().back().Text(), std::string("POST /containers/clock/") + action);
        EXPECT_EQ(daemon.Requests().back().contentType, "");
        EXPECT_EQ(RunCtl({"container", action, "clock", "--json"}).output, "");
    }
}

TEST_F(CtlContainers, TakesOneThatIsCalledLikeACommand) {
    daemon.On("POST /containers/status/start", {204, ""});
    daemon.On("GET /containers/ps", {200, "{}"});

    EXPECT_EQ(RunCtl({"container", "start", "status"}).exitCode, 0);
    EXPECT_EQ(RunCtl({"inspect", "ps"}).exitCode, 0);
}

TEST_F(CtlContainers, RemovesOne) {
    daemon.On("DELETE /containers/clock", {204, ""});
    daemon.On("DELETE /containers/clock?force=true", {204, ""});

    EXPECT_EQ(RunCtl({"container", "rm", "clock"}).output, "clock removed\n");
    EXPECT_EQ(RunCtl({"container", "rm", "--force", "clock"}).exitCode, 0);
    EXPECT_EQ(daemon.Log(), "DELETE /containers/clock\nDELETE /containers/clock?force=true\n");
}

TEST_F(CtlContainers, SaysThatThereIsNone) {
    daemon.On("GET /containers/x", ScriptedDaemon::Problem(404, "There is no container \"x\""));

    const Result result = RunCtl({"inspect", "x"});

    EXPECT_EQ(result.exitCode, 5);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "qxctl: There is no container \"x\"\n");
}

TEST_F(CtlContainers, SaysThatPodmanDoesNotAnswer) {
    daemon.On("GET /containers", ScriptedDaemon::Problem(503, "Podman does not answer; start the service"));

    const Result result = RunCtl({"ps"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "qxctl: Podman does not answer; start the service\n");
}

TEST_F(CtlContainers, EscapesNames) {
    RunCtl({"inspect", "a/../b c?d#e%"});
    EXPECT_EQ(daemon.Log(), "GET /containers/a%2F..%2Fb%20c%3Fd%23e%25\n");
    for (const char* name : {"", ".", ".."}) {
        EXPECT_EQ(RunCtl({"inspect", name}).exitCode, 2);
    }
    EXPECT_EQ(daemon.Requests().size(), 1U);
}

TEST_F(CtlContainers, ListsImages) {
    daemon.On(
        "GET /images",
        {200, R"({"images":[{"id":"9d5226e6ce3fb6ae","names":["localhost/busybox:1","b:2"],"size":4402345,)"
              R"("created":"2021-10-01T10:00:00Z","containers":1},)"
              R"({"id":"aa","names":[],"size":12,"created":"2021-10-01T10:00:00Z","containers":0}]})"});

    EXPECT_EQ(RunCtl({"images"}).output,
              "NAME                 ID               SIZE  CREATED              CONTAINERS\n"
              "localhost/busybox:1  9d5226e6ce3f  4.2 MiB  2021-10-01 10:00:00           1\n"
              "b:2                  9d5226e6ce3f  4.2 MiB  2021-10-01 10:00:00           1\n"
              "<none>               aa               12 B  2021-10-01 10:00:00           0\n");
}

TEST_F(CtlContainers, LoadsImages) {
    Sandbox::WriteFile("/run/a.tar", std::string(3'000'000, 'x'));
    daemon.On("POST /images", {200, R"({"names":["localhost/a:1","localhost/b:1"]})"});

    const Result result = RunCtl({"load", "/run/a.tar"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "localhost/a:1 loaded\nlocalhost/b:1 loaded\n");
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(daemon.Requests().at(0).contentType, "application/x-tar");
    EXPECT_EQ(daemon.Requests().at(0).body, std::string(3'000'000, 'x'));
    EXPECT_EQ(RunCtl({"load", "--json", "/run/a.tar"}).output,
              "{\"names\":[\"localhost/a:1\",\"localhost/b:1\"]}\n");
}

TEST_F(CtlContainers, ShowsOnATerminalHowAnUploadGoesOn) {
    Sandbox::WriteFile("/run/a.tar", std::string(20'000'000, 'x'));
    daemon.On("POST /images", {200, R"({"names":["a"]})", "application/json", 2500});

    const Result result = RunOnTerminal({"load", "/run/a.tar"});

    EXPECT_THAT(result.output, HasSubstr("Sending /run/a.tar ["));
    EXPECT_THAT(result.output, HasSubstr(" of 19.1 MiB"));
    EXPECT_THAT(result.output, ContainsRegex("Loading images  [12] s"));
    EXPECT_THAT(result.output, HasSubstr("\r\x1b[Ka loaded\n"));
}

TEST_F(CtlContainers, LoadsNothingThatIsNoFile) {
    EXPECT_EQ(RunCtl({"load", "/run/none"}).exitCode, 1);
    EXPECT_THAT(RunCtl({"load", "/run/none"}).errors, HasSubstr("'/run/none': No such file"));
    EXPECT_THAT(RunCtl({"load", "/run"}).errors, HasSubstr("no regular file"));
    EXPECT_EQ(daemon.Log(), "");
}

TEST_F(CtlContainers, SaysWhyAnArchiveWasRefused) {
    Sandbox::WriteFile("/run/a.tar", "x");
    daemon.On("POST /images", ScriptedDaemon::Problem(507, "There is no room"));

    const Result result = RunCtl({"load", "/run/a.tar"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "qxctl: There is no room\n");
}

TEST_F(CtlContainers, RemovesAnImage) {
    daemon.On("DELETE /images/localhost%2Fbusybox%3A1", {204, ""});

    const Result result = RunCtl({"rmi", "localhost/busybox:1"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "localhost/busybox:1 removed\n");
    RunCtl({"rmi", "a", "--force"});
    EXPECT_EQ(daemon.Requests().back().target, "/images/a?force=true");
}

}  // namespace
