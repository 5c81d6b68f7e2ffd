#include "CtlRun.h"
#include "ScriptedDaemon.h"

#include <gmock/gmock.h>

#include <csignal>
#include <ctime>

using CtlRun::Result;
using CtlRun::RunCtl;
using CtlRun::RunOnTerminal;
using QxNJson::json;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

namespace {

/// A line of a log, whose time is so many seconds after 19 o'clock.
json Line(int second, const std::string& stream, const std::string& text, bool isPartial = false) {
    char time[64];
    snprintf(time, sizeof(time), "2021-11-21T19:00:%02d.123456789Z", second);
    json line{{"cursor", "c " + std::to_string(second)}, {"time", time}, {"stream", stream}, {"text", text}};
    if (isPartial) {
        line["partial"] = true;
    }
    return line;
}

std::string Lines(const std::vector<json>& lines) {
    json message{{"type", "lines"}, {"lines", json::array()}};
    for (const json& line : lines) {
        message["lines"].push_back(line);
    }
    return message.dump();
}

std::string End(const std::string& code, const std::string& reason = "") {
    return json{{"type", "end"}, {"code", code}, {"reason", reason}}.dump();
}

constexpr const char* Start = R"({"type":"start","container":"6f3b","tty":false})";

class CtlLogs : public testing::Test {
protected:
    /// The WebSocket sends these and is closed.
    void Live(const std::string& query, const std::vector<std::string>& messages) {
        daemon.OnLive("/containers/clock/logs?" + query, [messages](ScriptedDaemon::Live& live) {
            for (const std::string& message : messages) {
                live.Send(message);
            }
        });
    }

    /// The WebSocket sends these and stays.
    void LiveForEver(const std::string& query, const std::vector<std::string>& messages) {
        daemon.OnLive("/containers/clock/logs?" + query, [messages](ScriptedDaemon::Live& live) {
            for (const std::string& message : messages) {
                live.Send(message);
            }
            live.WaitForEnd();
        });
    }

    ScriptedDaemon daemon;
};

TEST_F(CtlLogs, ShowsTheTextAsItIs) {
    daemon.On("GET /containers/clock/logs?tail=100", {200, "one\ntwo \x1b[2J\xFF\nthree", "text/plain"});

    const Result result = RunCtl({"logs", "clock"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "one\ntwo \x1b[2J\xFF\nthree\n");
    EXPECT_FALSE(daemon.Requests().at(0).isWebSocket);
}

TEST_F(CtlLogs, ShowsOnATerminalOnlyColours) {
    daemon.On("GET /containers/clock/logs?tail=100",
              {200, "a\x1b[31mred\x1b[2J\x07\n\x1b]0;title\x07plain\r\n", "text/plain"});

    EXPECT_EQ(RunOnTerminal({"logs", "clock"}).output, "a\x1b[31mred\x1b[0m\nplain\n");
}

TEST_F(CtlLogs, AsksForWhatTheUserWants) {
    for (const char* target : {"tail=all&timestamps=true", "tail=0", "tail=5"}) {
        daemon.On(std::string("GET /containers/clock/logs?") + target, {200, "x\n", "text/plain"});
    }

    EXPECT_EQ(RunCtl({"logs", "--tail", "all", "-t", "clock"}).output, "x\n");
    EXPECT_EQ(RunCtl({"logs", "--tail=0", "clock"}).output, "x\n");
    EXPECT_EQ(RunCtl({"logs", "clock", "--tail", "5"}).output, "x\n");
    for (const char* tail : {"-1", "x", "", "12345678"}) {
        EXPECT_EQ(RunCtl({"logs", "--tail", tail, "clock"}).exitCode, 2);
    }
    EXPECT_EQ(RunCtl({"logs"}).exitCode, 2);
    EXPECT_EQ(RunCtl({"logs", "--stdout", "--stderr", "clock"}).exitCode, 2);
}

TEST_F(CtlLogs, EndsAfterSoManyLines) {
    daemon.On("GET /containers/clock/logs?tail=100", {200, "one\ntwo\nthree\n", "text/plain"});
    LiveForEver("tail=100",
                {Lines({Line(1, "stdout", "1"), Line(2, "stdout", "2"), Line(3, "stdout", "3")})});

    EXPECT_EQ(RunCtl({"logs", "--lines", "2", "clock"}).output, "one\ntwo\n");
    EXPECT_EQ(RunCtl({"logs", "-f", "--lines", "2", "clock"}).output, "1\n2\n");
    EXPECT_EQ(RunCtl({"logs", "-f", "--lines", "0", "clock"}).output, "");
}

TEST_F(CtlLogs, ShowsLogsOfAnySize) {
    std::string text;
    for (int i = 0; i < 1000000; ++i) {
        text += "this is a line of more than sixty-four bytes, so that there are many: " + std::to_string(i) +
                "\n";
    }
    daemon.On("GET /containers/clock/logs?tail=all", {200, text, "text/plain"});

    const int status = std::system(QXCTL_PROGRAM " logs --tail all clock | wc -lc >/run/ctl.out");

    EXPECT_EQ(status, 0);
    EXPECT_THAT(CtlRun::Output(), MatchesRegex(" *1000000 +" + std::to_string(text.size()) + "\n"));
}

TEST_F(CtlLogs, SaysThatThereIsNoContainer) {
    for (const char* query : {"tail=100", "tail=1&timestamps=true"}) {
        daemon.On(std::string("GET /containers/clock/logs?") + query,
                  ScriptedDaemon::Problem(404, "No clock"));
    }

    for (const CtlRun::Arguments& more : {CtlRun::Arguments{}, {"-f"}, {"--json"}}) {
        CtlRun::Arguments arguments{"logs", "clock"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Result result = RunCtl(arguments);
        EXPECT_EQ(result.exitCode, 5);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.errors, "qxctl: No clock\n");
    }
}

TEST_F(CtlLogs, FollowsUntilTheContainerEnds) {
    Live("tail=100", {Start, Lines({Line(1, "stdout", "one"), Line(2, "stderr", "two")}),
                      Lines({Line(3, "stdout", "größe")}), R"({"type":"news","of":"later"})",
                      End("exited", "exit code 3")});

    const Result result = RunCtl({"logs", "-f", "clock"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "one\ntwo\ngröße\n");
    EXPECT_EQ(result.errors, "qxctl: clock: exit code 3\n");
}

TEST_F(CtlLogs, ShowsLinesAtOnce) {
    LiveForEver("tail=100", {Start, Lines({Line(1, "stdout", "one")})});

    const pid_t tool = CtlRun::Start({"logs", "-f", "clock"});
    EXPECT_TRUE(Sandbox::Eventually([] { return CtlRun::Output() == "one\n"; }));
    kill(tool, SIGINT);
    const Result result = CtlRun::Finish(tool);

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "one\n");
    EXPECT_EQ(result.errors, "");
}

TEST_F(CtlLogs, ShowsOneStreamOnly) {
    const std::vector<std::string> messages{
        Lines({Line(1, "stdout", "out"), Line(2, "stderr", "err"), Line(3, "tty", "tty")}), End("removed")};
    Live("tail=100", messages);
    Live("tail=100", messages);

    EXPECT_EQ(RunCtl({"logs", "-f", "--stdout", "clock"}).output, "out\ntty\n");
    EXPECT_EQ(RunCtl({"logs", "-f", "--stderr", "clock"}).output, "err\n");
}

TEST_F(CtlLogs, ShowsTimes) {
    Live("tail=100", {Lines({Line(1, "stdout", "one"), Line(2, "stdout", "")}), End("exited")});

    EXPECT_EQ(RunCtl({"logs", "-ft", "clock"}).output,
              "2021-11-21T19:00:01.123456789Z one\n"
              "2021-11-21T19:00:02.123456789Z \n");
}

TEST_F(CtlLogs, ShowsHowLongLinesTook) {
    const std::string now = std::to_string(std::time(nullptr));
    json line = Line(2, "stdout", "no time");
    line["time"] = "2001-01-01T00:00:00Z";
    Live("tail=100", {Lines({Line(1, "stdout", now + ".5 tick"), line}), End("exited")});

    EXPECT_THAT(
        RunCtl({"logs", "--delay", "clock"}).output,
        MatchesRegex(" *-?[0-9]+\\.[0-9] ms  " + now + "\\.5 tick\n *[0-9]{12,}\\.[0-9] ms  no time\n"));
}

TEST_F(CtlLogs, PutsPartsTogether) {
    Live("tail=100",
         {Lines({Line(1, "stdout", "a", true), Line(2, "stdout", "b", true), Line(3, "stdout", "c"),
                 Line(4, "stdout", "d", true), Line(5, "stderr", "other"), Line(6, "stdout", "e")}),
          Lines({Line(7, "stdout", "open", true)}), End("exited")});

    EXPECT_EQ(RunCtl({"logs", "-f", "clock"}).output, "abc\nd\nother\ne\nopen\n");
}

TEST_F(CtlLogs, TellsOfMissingLines) {
    const std::vector<std::string> messages{Lines({Line(1, "stdout", "one")}),
                                            R"({"type":"skipped","count":7})",
                                            R"({"type":"skipped","count":-1})", End("exited")};
    Live("tail=100", messages);
    Live("tail=100", messages);

    EXPECT_EQ(RunCtl({"logs", "-f", "clock"}).errors,
              "qxctl: 7 lines are missing here\nqxctl: lines are missing here\nqxctl: clock: exited\n");
    const Result result = RunCtl({"logs", "-f", "--json", "clock"});
    EXPECT_EQ(result.output, Line(1, "stdout", "one").dump() +
                                 "\n"
                                 "{\"type\":\"skipped\",\"count\":7}\n"
                                 "{\"type\":\"skipped\",\"count\":-1}\n" +
                                 End("exited") + "\n");
    EXPECT_EQ(result.errors, "");
}

TEST_F(CtlLogs, ComesBackWithoutDoubles) {
    daemon.OnLive("/containers/clock/logs?tail=100", [](ScriptedDaemon::Live& live) {
        live.Send(Lines({Line(1, "stdout", "one"), Line(2, "stdout", "two")}));
        live.Drop();
    });
    Live("after=c%202", {Lines({Line(3, "stdout", "three")})});
    Live("after=c%203", {Start, End("podman")});
    Live("after=c%203", {Lines({Line(4, "stdout", "four")}), End("stopping")});
    Live("after=c%204", {Lines({Line(5, "stdout", "five")}), End("exited")});

    const Result result = RunCtl({"logs", "-f", "clock"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "one\ntwo\nthree\nfour\nfive\n");
    EXPECT_THAT(result.errors, testing::StartsWith("qxctl: the connection is lost; trying again\n"
                                                   "qxctl: connected again\n"));
}

TEST_F(CtlLogs, WaitsUntilPodmanIsBack) {
    Live("tail=100", {Lines({Line(1, "stdout", "one")}), End("podman")});
    daemon.On("GET /containers/clock/logs?after=c%201",
              ScriptedDaemon::Problem(503, "Podman does not answer"));

    const pid_t tool = CtlRun::Start({"logs", "-f", "clock"});
    ASSERT_TRUE(Sandbox::Eventually([&] { return daemon.Requests().size() >= 3; }));
    Live("after=c%201", {Lines({Line(2, "stdout", "two")}), End("exited")});
    const Result result = CtlRun::Finish(tool);

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "one\ntwo\n");
    EXPECT_EQ(result.errors,
              "qxctl: the connection is lost; trying again\nqxctl: connected again\nqxctl: clock: exited\n");
}

TEST_F(CtlLogs, GivesUpWhenTheContainerIsGone) {
    Live("tail=100", {Lines({Line(1, "stdout", "one")})});
    daemon.On("GET /containers/clock/logs?after=c%201", ScriptedDaemon::Problem(404, "No clock"));

    EXPECT_EQ(RunCtl({"logs", "-f", "clock"}).exitCode, 5);
}

TEST_F(CtlLogs, DoesNotWaitForADaemonThatNeverWasThere) {
    daemon.On("GET /containers/clock/logs?tail=100", ScriptedDaemon::Problem(503, "Podman does not answer"));

    EXPECT_EQ(RunCtl({"logs", "-f", "clock"}).exitCode, 1);
    EXPECT_EQ(RunCtl({"--socket", "/run/none", "logs", "-f", "clock"}).exitCode, 3);
    daemon.On("GET /containers/clock/logs?tail=100", ScriptedDaemon::Problem(403, "Not you"));
    EXPECT_EQ(RunCtl({"logs", "-f", "clock"}).exitCode, 4);
}

TEST_F(CtlLogs, FailsWithALogThatFails) {
    Live("tail=100", {Lines({Line(1, "stdout", "one")}), End("error", "The log driver is none")});

    const Result result = RunCtl({"logs", "-f", "clock"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "qxctl: the log ended: The log driver is none\n");
}

TEST_F(CtlLogs, TellsMoreOfLinesThatAreThere) {
    const auto prepare = [&] {
        LiveForEver("tail=3", {Start, Lines({Line(1, "stdout", "one")}),
                               Lines({Line(2, "stderr", "two"), Line(3, "stdout", "three")})});
        daemon.On("GET /containers/clock/logs?tail=1&timestamps=true",
                  {200, "2021-11-21T19:00:03.123456789Z three\n", "text/plain"});
    };

    prepare();
    const Result result = RunCtl({"logs", "--json", "--tail", "3", "clock"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, Line(1, "stdout", "one").dump() + "\n" + Line(2, "stderr", "two").dump() + "\n" +
                                 Line(3, "stdout", "three").dump() + "\n");
    prepare();
    EXPECT_EQ(RunCtl({"logs", "--stderr", "--tail", "3", "clock"}).output, "two\n");
    prepare();
    EXPECT_EQ(RunCtl({"logs", "--stdout", "--tail", "3", "-t", "clock"}).output,
              "2021-11-21T19:00:01.123456789Z one\n2021-11-21T19:00:03.123456789Z three\n");
}

TEST_F(CtlLogs, TellsAllLinesOfAContainerThatHasEnded) {
    daemon.On("GET /containers/clock/logs?tail=1&timestamps=true",
              {200, "2021-11-21T19:00:03.123456789Z x\n", "text/plain"});
    Live("tail=100", {Lines({Line(1, "stdout", "one")}), End("exited")});

    const Result result = RunCtl({"logs", "--stdout", "clock"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "one\n");
    EXPECT_EQ(result.errors, "");
}

TEST_F(CtlLogs, TellsNothingOfALogWithoutLines) {
    daemon.On("GET /containers/clock/logs?tail=1&timestamps=true", {200, "", "text/plain"});

    const Result result = RunCtl({"logs", "--json", "clock"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "");
}

TEST_F(CtlLogs, IsNotUpsetByWhatNoDaemonSends) {
    const std::vector<std::string> wrong{
        "no JSON",
        "[]",
        "7",
        "{}",
        R"({"type":7})",
        R"({"type":"lines"})",
        R"({"type":"lines","lines":{}})",
        R"({"type":"lines","lines":[7]})",
        R"({"type":"lines","lines":[{"cursor":"c","time":"t","stream":"stdout","text":null}]})",
        R"({"type":"lines","lines":[{"cursor":"c","time":"t","stream":"stdout","text":"x","partial":"y"}]})",
        R"({"type":"skipped","count":"many"})",
        R"({"type":"end"})",
        "\"\xC3",
        std::string(600, '['),
        std::string(17 * 1024 * 1024, ' '),
    };
    for (const std::string& message : wrong) {
        LiveForEver("tail=100", {message});

        const Result result = RunCtl({"logs", "-f", "clock"});

        EXPECT_EQ(result.exitCode, 1) << message.substr(0, 100);
        EXPECT_THAT(result.errors, HasSubstr("the daemon's answer is not understood"))
            << message.substr(0, 100);
    }
}

TEST_F(CtlLogs, IsNotUpsetByWhatIsNoWebSocket) {
    daemon.OnLive("/containers/clock/logs?tail=100", [](ScriptedDaemon::Live& live) {
        live.SendRaw("HTTP/1.1 200 OK\r\n\r\n");
        live.WaitForEnd();
    });
    EXPECT_EQ(RunCtl({"logs", "-f", "clock"}).exitCode, 1);

    daemon.On("GET /containers/clock/logs?tail=100", {200, "a text\n", "text/plain"});
    const Result result = RunCtl({"logs", "-f", "clock"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.errors, HasSubstr("no WebSocket"));
}

TEST_F(CtlLogs, ShowsLiveLinesOnATerminalWithColoursOnly) {
    Live("tail=100",
         {Lines({Line(1, "stdout", "\x1b[1;32mgreen\x1b[H\x1b]52;c;x\x07")}), End("exited", "\x1b[2J")});

    EXPECT_EQ(RunOnTerminal({"logs", "-f", "clock"}).output,
              "\x1b[1;32mgreen\x1b[0m\nqxctl: clock: \uFFFD[2J\n");
}

TEST_F(CtlLogs, EndsQuietlyWhenTheReaderHasEnough) {
    daemon.On("GET /containers/clock/logs?tail=all", {200, std::string(50'000'000, '\n'), "text/plain"});
    daemon.OnLive("/containers/clock/logs?tail=100", [](ScriptedDaemon::Live& live) {
        for (int i = 0; i < 20000; ++i) {
            live.Send(Lines({Line(1, "stdout", "one")}));
        }
        live.WaitForEnd();
    });

    for (const char* command : {"logs --tail all clock", "logs -f clock"}) {
        Sandbox::WriteFile("/run/script", "(" QXCTL_PROGRAM " " + std::string(command) +
                                              "; echo $? >/run/code) 2>/run/ctl.err | head -1 >/dev/null\n");
        EXPECT_EQ(std::system("sh /run/script"), 0);
        EXPECT_EQ(CtlRun::Errors(), "");
        EXPECT_EQ(Sandbox::ReadFile("/run/code"), "141\n");
    }
}

TEST_F(CtlLogs, FailsWhenItCannotWrite) {
    LiveForEver("tail=100", {Lines({Line(1, "stdout", "one")})});
    Sandbox::WriteFile("/run/script", std::string(QXCTL_PROGRAM) + " logs -f clock > /dev/full\n");

    const int status = std::system("sh /run/script 2>/run/ctl.err");

    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(CtlRun::Errors(), "qxctl: cannot write the result: No space left on device\n");
}

}  // namespace
