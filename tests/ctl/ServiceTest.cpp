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

constexpr const char* Running =
    R"({"version":"1.2.3","enabled":true,"state":"running","problem":"","startedAt":"2021-11-21T19:00:00.000Z",)"
    R"("settings":{"tcpPort":0,"cores":1,"maximumCores":3},)"
    R"("podman":{"answering":true,"version":"5.8.6","askedAt":"2021-11-21T19:04:00.000Z","problem":""},)"
    R"("restarts":{"policy":"on-failure","limit":5,"inARow":0,"nextAt":null,"history":[]}})";

constexpr const char* Waiting =
    R"({"version":"1.2.3","enabled":false,"state":"waiting","problem":"Podman\u001b[31m is gone","startedAt":null,)"
    R"("settings":{"tcpPort":8443,"cores":0,"maximumCores":3},)"
    R"("podman":{"answering":false,"version":"","askedAt":null,"problem":"no socket"},)"
    R"("restarts":{"policy":"always","limit":5,"inARow":2,"nextAt":"2021-11-21T19:05:00Z",)"
    R"("history":[{"time":"2021-11-21T19:04:00Z","cause":"Podman \u001b[31mended"}]}})";

class CtlService : public testing::Test {
protected:
    ScriptedDaemon daemon;
};

TEST_F(CtlService, TellsTheStatus) {
    daemon.On("GET /service", {200, Running});

    const Result result = RunCtl({"status"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("service   running\nstarted   2021-11-21 19:00:00, "));
    EXPECT_THAT(result.output, HasSubstr(" days ago\n"
                                         "enabled   yes\n"
                                         "Podman    5.8.6, answers\n"
                                         "TCP port  none\n"
                                         "cores     1 of at most 3\n"
                                         "restarts  on-failure, 0 of at most 5 in a row\n"
                                         "daemon    1.2.3\n"));
    EXPECT_EQ(daemon.Log(), "GET /service\n");
    EXPECT_EQ(daemon.Requests().at(0).host, "localhost");
}

TEST_F(CtlService, TellsWhatIsWrongWithTheService) {
    daemon.On("GET /service", {200, Waiting});

    EXPECT_EQ(RunCtl({"status"}).output,
              "service   waiting\n"
              "problem   Podman\uFFFD[31m is gone\n"
              "enabled   no\n"
              "Podman    does not answer: no socket\n"
              "TCP port  8443\n"
              "cores     0 of at most 3\n"
              "restarts  always, 2 of at most 5 in a row, next at 2021-11-21 19:05:00\n"
              "daemon    1.2.3\n"
              "\n"
              "LOST                 CAUSE\n"
              "2021-11-21 19:04:00  Podman \uFFFD[31mended\n");
}

TEST_F(CtlService, TellsOnceWhatIsWrongWithServiceAndPodman) {
    std::string service = Waiting;
    service.replace(service.find("no socket"), std::string("no socket").size(),
                    R"(Podman\u001b[31m is gone)");
    daemon.On("GET /service", {200, service});

    const std::string output = RunCtl({"status"}).output;

    EXPECT_THAT(output, HasSubstr("problem   Podman\uFFFD[31m is gone\n"));
    EXPECT_THAT(output, HasSubstr("Podman    does not answer\n"));
}

TEST_F(CtlService, TellsTheStatusAsItCame) {
    daemon.On("GET /service", {200, Running});

    EXPECT_EQ(RunCtl({"--json", "status"}).output, std::string(Running) + "\n");
    EXPECT_EQ(RunCtl({"status", "--json"}).output, std::string(Running) + "\n");
}

TEST_F(CtlService, PrintsTheDaemonsJsonForEveryCommand) {
    const std::string body =
        R"({"some": ["thing", 1 ,2], "verdict": "ok", "code": 0, "ok": true, "valid": true})";
    const std::pair<std::vector<std::string>, const char*> commands[] = {
        {{"status"}, "GET /service"},
        {{"enable"}, "POST /service/enable"},
        {{"disable"}, "POST /service/disable"},
        {{"start"}, "POST /service/start"},
        {{"stop"}, "POST /service/stop"},
        {{"set", "--cores", "1"}, "PATCH /service/settings"},
        {{"check"}, "GET /check"},
        {{"cores"}, "GET /cores"},
        {{"ps"}, "GET /containers"},
        {{"inspect", "clock"}, "GET /containers/clock"},
        {{"images"}, "GET /images"},
        {{"load", "/run/file"}, "POST /images"},
        {{"compose", "ls"}, "GET /projects"},
        {{"compose", "check", "/run/file"}, "POST /compose-files/check"},
        {{"compose", "create", "a.yaml"}, "POST /projects/a.yaml/create"},
        {{"compose", "start", "a.yaml"}, "POST /projects/a.yaml/start"},
        {{"compose", "stop", "a.yaml"}, "POST /projects/a.yaml/stop"},
        {{"compose", "rm", "a.yaml"}, "POST /projects/a.yaml/remove"},
        {{"plugins"}, "GET /plugins"},
        {{"plugin", "rescan"}, "POST /plugins/rescan"},
        {{"token", "ls"}, "GET /tokens"},
    };
    Sandbox::WriteFile("/run/file", "x");
    for (const auto& [words, request] : commands) {
        daemon.On(request, {200, body});
        std::vector<std::string> all = words;
        all.emplace_back("--json");
        EXPECT_EQ(RunCtl(all).output, body + "\n") << request;
    }
}

TEST_F(CtlService, HasColoursOnATerminalOnly) {
    daemon.On("GET /service", {200, Running});

    EXPECT_THAT(RunOnTerminal({"status"}).output, HasSubstr("service   \x1b[32mrunning\x1b[0m\n"));
    EXPECT_THAT(RunOnTerminal({"status"}, {{{"NO_COLOR", "1"}}, ""}).output, Not(HasSubstr("\x1b")));
    EXPECT_THAT(RunOnTerminal({"status"}, {{{"TERM", "dumb"}}, ""}).output, Not(HasSubstr("\x1b")));
    EXPECT_THAT(RunOnTerminal({"status"}, {{{"NO_COLOR", ""}}, ""}).output, HasSubstr("\x1b[32m"));
    EXPECT_THAT(RunCtl({"status"}).output, Not(HasSubstr("\x1b")));
}

TEST_F(CtlService, ShowsTimesOfThePlace) {
    daemon.On("GET /service", {200, Running});

    EXPECT_THAT(RunCtl({"status"}, {{{"TZ", "XYZ-3"}}, ""}).output, HasSubstr("2021-11-21 22:00:00"));
}

TEST_F(CtlService, TakesTheServiceThroughItsActions) {
    for (const char* action : {"enable", "disable", "start", "stop"}) {
        daemon.On(std::string("POST /service/") + action, {200, Running});

        const Result result = RunCtl({action});

        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.output, "The service is running and enabled.\n");
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(daemon.Requests().back().Text(), std::string("POST /service/") + action);
        EXPECT_EQ(RunCtl({action, "--json"}).output, std::string(Running) + "\n");
    }
}

TEST_F(CtlService, SaysWhyAnActionWasRefused) {
    daemon.On("POST /service/start", ScriptedDaemon::Problem(409, "The user storage is vfat; make it ext4"));

    const Result result = RunCtl({"start"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "qxctl: The user storage is vfat; make it ext4\n");
}

TEST_F(CtlService, ChangesSettings) {
    daemon.On("PATCH /service/settings", {200, Waiting});

    const Result result = RunCtl({"set", "--tcp-port", "8443", "--cores", "0"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "TCP port 8443, cores 0; in effect after the next start of the service\n");
    EXPECT_EQ(daemon.Log(), "PATCH /service/settings {\"tcpPort\":8443,\"cores\":0}\n");
    EXPECT_EQ(daemon.Requests().at(0).contentType, "application/json");
    RunCtl({"set", "--cores=2"});
    EXPECT_EQ(daemon.Requests().back().body, "{\"cores\":2}");
}

TEST_F(CtlService, SetsNothingThatCannotBe) {
    EXPECT_EQ(RunCtl({"set"}).exitCode, 2);
    EXPECT_EQ(RunCtl({"set", "--tcp-port", "65536"}).exitCode, 2);
    EXPECT_EQ(RunCtl({"set", "--tcp-port", "x"}).exitCode, 2);
    EXPECT_EQ(RunCtl({"set", "--cores", "-1"}).exitCode, 2);
    EXPECT_EQ(daemon.Log(), "");
}

std::string Checks(const std::string& verdict) {
    return R"({"verdict":")" + verdict + R"(","checks":[)" +
           R"({"id":"enabled","title":"Service enabled","verdict":"ok","found":"yes","remedy":""},)"
           R"({"id":"certificates","title":"Certificates","verdict":"warning","found":"ends in 12 days",)"
           R"("remedy":"Put a new one into certs"},)"
           R"({"id":"storage","title":"User storage","verdict":"error","found":"vfat","remedy":"Make it ext4"},)"
           R"({"id":"podman","title":"Podman","verdict":"unknown","found":"","remedy":""}]})";
}

TEST_F(CtlService, ChecksTheBoard) {
    daemon.On("GET /check", {200, Checks("error")});

    const Result result = RunCtl({"check"});

    EXPECT_EQ(result.exitCode, 11);
    EXPECT_EQ(result.output,
              "VERDICT    ID            TITLE            FOUND\n"
              "✓ ok       enabled       Service enabled  yes\n"
              "! warning  certificates  Certificates     ends in 12 days\n"
              "✗ error    storage       User storage     vfat\n"
              "? unknown  podman        Podman\n"
              "\n"
              "What to do:\n"
              "  certificates: Put a new one into certs\n"
              "  storage: Make it ext4\n"
              "\n"
              "1 ok, 1 warning, 1 error, 1 unknown\n");
}

TEST_F(CtlService, TellsTheVerdictByItsExitCode) {
    const auto exitCodeFor = [&](const std::string& verdict, const CtlRun::Arguments& arguments) {
        daemon.On("GET /check", {200, Checks(verdict)});
        return RunCtl(arguments).exitCode;
    };

    EXPECT_EQ(exitCodeFor("ok", {"check"}), 0);
    EXPECT_EQ(exitCodeFor("warning", {"check"}), 10);
    EXPECT_EQ(exitCodeFor("error", {"check", "--json"}), 11);
    EXPECT_EQ(exitCodeFor("splendid", {"check"}), 1);
    EXPECT_EQ(RunCtl({"check", "--json"}).exitCode, 1);
    daemon.On("GET /check", ScriptedDaemon::Problem(500, "x"));
    EXPECT_EQ(RunCtl({"check"}).exitCode, 1);
}

TEST_F(CtlService, TellsWhoHasWhichCore) {
    daemon.On(
        "GET /cores",
        {200, R"({"cores":[{"core":0,"owner":"linux"},{"core":10,"owner":"containers"}],"configured":1,)"
              R"("maximum":2,"effective":"10","strangers":[{"pid":812,"command":"top\n-b"}]})"});

    EXPECT_EQ(RunCtl({"cores"}).output,
              "CORE  OWNER\n"
              "   0  linux\n"
              "  10  containers\n"
              "\n"
              "configured  1\n"
              "at most     2\n"
              "in effect   10\n"
              "\n"
              "On the containers' cores, but of no container:\n"
              "PID  COMMAND\n"
              "812  top\uFFFD-b\n");
}

TEST_F(CtlService, ShowsFigures) {
    daemon.On("GET /metrics", {200, "# HELP x y\nx 1\n", "text/plain"});

    const Result result = RunCtl({"metrics"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "# HELP x y\nx 1\n");
}

TEST_F(CtlService, TellsVersions) {
    daemon.On("GET /service", {200, Running});

    EXPECT_EQ(RunCtl({"version"}).output, "qxctl   1.0.0\ndaemon  1.2.3\n");
    EXPECT_EQ(RunCtl({"version", "--json"}).output, "{\"qxctl\":\"1.0.0\",\"daemon\":\"1.2.3\"}\n");
    EXPECT_EQ(RunCtl({"--version"}).output, "qxctl 1.0.0\n");
}

TEST(CtlVersion, TellsItsOwnWithoutADaemon) {
    const Result result = RunCtl({"version"});

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.output, "qxctl   1.0.0\n");
    EXPECT_EQ(RunCtl({"--version"}).exitCode, 0);
}

TEST_F(CtlService, ShowsOnATerminalThatItWorks) {
    daemon.On("POST /service/start", {200, Running, "application/json", 2500});

    const Result result = RunOnTerminal({"start"});

    EXPECT_THAT(result.output, HasSubstr("Starting the service  0 s"));
    EXPECT_THAT(result.output, ContainsRegex("Starting the service  [12] s"));
    EXPECT_THAT(result.output, HasSubstr("\r\x1b[KThe service is \x1b[32mrunning\x1b[0m and enabled.\n"));
}

TEST_F(CtlService, EndsWithItsOwnCodeWhenItIsInterrupted) {
    daemon.On("POST /service/start", {200, Running, "application/json", 10000});
    CtlRun::Terminal terminal({"start"});
    ASSERT_TRUE(terminal.Shows("Starting the service"));

    terminal.Type("\x03");
    const Result result = terminal.Finish();

    EXPECT_EQ(result.exitCode, 130);
    EXPECT_THAT(result.output, testing::EndsWith("\r\x1b[K"));
}

}  // namespace
