#include "CtlRun.h"
#include "ScriptedDaemon.h"
#include "tests/unit/ScriptedServer.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

using CtlRun::Arguments;
using CtlRun::Result;
using CtlRun::RunCtl;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* None = R"({"containers":[]})";
constexpr const char* Headings = "NAME  ID  STATE  STATUS  IMAGE  PROJECT  PORTS\n";

TEST(CtlSocket, SaysWhichOneCannotBeReached) {
    const Result result = RunCtl({"ps"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(
        result.errors,
        "qxctl: cannot reach the daemon at the socket /run/qxcontainerd/api.sock: No such file or directory\n"
        "Is qxcontainerd running? When its socket is elsewhere, say --socket PATH or set QXCTL_SOCKET.\n");
    EXPECT_THAT(RunCtl({"--socket", "/run/x", "ps"}).errors, HasSubstr("at the socket /run/x: No such"));
    EXPECT_THAT(RunCtl({"ps"}, {{{"QXCTL_SOCKET", "/run/y"}}, ""}).errors,
                HasSubstr("at the socket /run/y: No such"));
    EXPECT_THAT(RunCtl({"ps", "--socket", "/run/x"}, {{{"QXCTL_SOCKET", "/run/y"}}, ""}).errors,
                HasSubstr("/run/x"));
    EXPECT_THAT(RunCtl({"ps"}, {{{"QXCTL_SOCKET", ""}}, ""}).errors, HasSubstr(ScriptedDaemon::Socket));
    EXPECT_EQ(RunCtl({"ps", "--socket", std::string(200, 'x')}).exitCode, 2);
    EXPECT_EQ(RunCtl({"ps", "--socket", ""}).exitCode, 2);
}

TEST(CtlSocket, SaysThatNobodyListens) {
    { const ScriptedDaemon daemon; }

    for (const Arguments& arguments : {Arguments{"ps"}, Arguments{"logs", "-f", "x"}}) {
        const Result result = RunCtl(arguments);
        EXPECT_EQ(result.exitCode, 3);
        EXPECT_THAT(result.errors, HasSubstr("Connection refused\nIs qxcontainerd running?"));
    }
}

TEST(CtlSocket, SaysWhoMayUseIt) {
    const ScriptedDaemon daemon;
    chmod(ScriptedDaemon::Socket, 0600);

    for (const char* command : {"ps", "messages -f"}) {
        const int status =
            std::system(("setpriv --reuid=65534 --regid=65534 --clear-groups " QXCTL_PROGRAM " " +
                         std::string(command) + " 2>/run/ctl.err")
                            .c_str());
        EXPECT_EQ(WEXITSTATUS(status), 3);
        EXPECT_THAT(CtlRun::Errors(), HasSubstr("Permission denied\nRun qxctl as root or as a member"));
    }
}

TEST(CtlSocket, IsTheOneThatTheUserMeans) {
    ScriptedDaemon daemon;
    daemon.On("GET /containers", {200, None});
    rename(ScriptedDaemon::Socket, "/run/elsewhere");

    EXPECT_EQ(RunCtl({"ps", "--socket", "/run/elsewhere"}).output, Headings);
    EXPECT_EQ(RunCtl({"ps"}, {{{"QXCTL_SOCKET", "/run/elsewhere"}, {"QXCTL_TOKEN", "t"}}, ""}).output,
              Headings);
    EXPECT_EQ(daemon.Requests().back().authorization, "");
}

class CtlAddress : public testing::Test {
protected:
    explicit CtlAddress(ScriptedDaemon::Network network = ScriptedDaemon::Network::Plain) : daemon(network) {
        daemon.On("GET /containers", {200, None});
        daemon.OnLive("/containers/clock/logs?tail=100", [](ScriptedDaemon::Live& live) {
            live.Send(
                R"({"type":"lines","lines":[{"cursor":"c","time":"2021-11-21T19:00:00Z","stream":"stdout","text":"live"}]})");
            live.Send(R"({"type":"end","code":"exited","reason":""})");
        });
        Sandbox::WriteFile("/run/token", "s3cret\n");
    }

    std::string Address(const std::string& host = "127.0.0.1") const {
        return "http://" + host + ":" + std::to_string(daemon.Port());
    }

    ScriptedDaemon daemon;
};

TEST_F(CtlAddress, IsAskedWithATokenFromAFile) {
    const Result result = RunCtl({"--address", Address(), "--token-file", "/run/token", "ps"});

    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output, Headings);
    EXPECT_EQ(daemon.Requests().at(0).authorization, "Bearer s3cret");
    EXPECT_EQ(daemon.Requests().at(0).host, "127.0.0.1:" + std::to_string(daemon.Port()));
}

TEST_F(CtlAddress, IsAskedWithATokenFromTheEnvironment) {
    EXPECT_EQ(RunCtl({"ps", "--address", Address("localhost")}, {{{"QXCTL_TOKEN", "abc"}}, ""}).exitCode, 0);
    EXPECT_EQ(daemon.Requests().at(0).authorization, "Bearer abc");
    EXPECT_EQ(
        RunCtl({"ps", "--address", Address(), "--token-file", "/run/token"}, {{{"QXCTL_TOKEN", "abc"}}, ""})
            .exitCode,
        0);
    EXPECT_EQ(daemon.Requests().at(1).authorization, "Bearer s3cret");
}

TEST_F(CtlAddress, IsFollowed) {
    const Result result =
        RunCtl({"--address", Address(), "--token-file", "/run/token", "logs", "-f", "clock"});

    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.output, "live\n");
    EXPECT_EQ(daemon.Requests().at(0).authorization, "Bearer s3cret");
    EXPECT_EQ(daemon.Requests().at(0).host, "127.0.0.1:" + std::to_string(daemon.Port()));
}

TEST_F(CtlAddress, ExplainsThatATokenIsNeeded) {
    daemon.On("GET /containers", ScriptedDaemon::Problem(401, "Show a token."));
    const Result result = RunCtl({"--address", Address(), "ps"});
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_EQ(result.errors,
              "qxctl: Show a token. (a token is given with --token-file FILE or in QXCTL_TOKEN)\n");

    daemon.On("GET /containers", ScriptedDaemon::Problem(403, "This token may only look."));
    EXPECT_EQ(RunCtl({"--address", Address(), "ps"}).exitCode, 4);
}

TEST_F(CtlAddress, HasNoTokenInTheArguments) {
    EXPECT_EQ(RunCtl({"--address", Address(), "--token", "x", "ps"}).exitCode, 2);
}

TEST_F(CtlAddress, TakesNoTokenThatCannotBeOne) {
    Sandbox::WriteFile("/run/lines", "a\r\nX-Evil: b");
    Sandbox::WriteFile("/run/empty", "\n");
    Sandbox::WriteFile("/run/long", std::string(5000, 'x'));

    for (const char* file : {"/run/lines", "/run/empty", "/run/long", "/run/none"}) {
        EXPECT_EQ(RunCtl({"--address", Address(), "--token-file", file, "ps"}).exitCode, 2) << file;
    }
    EXPECT_EQ(daemon.Log(), "");
}

TEST_F(CtlAddress, IsCheckedBeforeItIsUsed) {
    for (const char* address :
         {"", "board", "board:80", "ftp://127.0.0.1", "http://board:80", "http://10.0.0.1", "https://a/b",
          "https://a?b", "https://u:p@a", "https://a#b", "https://[::1", "http://"}) {
        EXPECT_EQ(RunCtl({"--address", address, "ps"}).exitCode, 2) << address;
    }
    EXPECT_EQ(RunCtl({"--address", Address(), "--socket", "/run/x", "ps"}).exitCode, 2);
    EXPECT_EQ(RunCtl({"--address", "http://[::1]:1", "ps"}).exitCode, 3);
    EXPECT_EQ(RunCtl({"--address", "http://[::1]:1", "messages", "-f"}).exitCode, 3);
}

TEST_F(CtlAddress, IsNotAskedByAProxy) {
    EXPECT_EQ(RunCtl({"--address", Address(), "ps"}, {{{"http_proxy", "http://127.0.0.1:1"}}, ""}).exitCode,
              0);
}

class CtlTls : public CtlAddress {
protected:
    CtlTls() : CtlAddress(ScriptedDaemon::Network::Tls) {}

    std::string Secure(const std::string& host) const {
        return "https://" + host + ":" + std::to_string(daemon.Port());
    }
};

TEST_F(CtlTls, IsAskedAndFollowed) {
    for (const char* host : {"localhost", "127.0.0.1"}) {
        const Arguments way{"--address",  Secure(host), "--token-file",
                            "/run/token", "--ca",       "/run/daemon.crt"};
        Arguments list = way;
        list.push_back("ps");
        const Result result = RunCtl(list);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_EQ(daemon.Requests().back().authorization, "Bearer s3cret");
    }
    const Result live =
        RunCtl({"--address", Secure("localhost"), "--ca", "/run/daemon.crt", "logs", "-f", "clock"},
               {{{"QXCTL_TOKEN", "abc"}}, ""});
    EXPECT_EQ(live.exitCode, 0) << live.errors;
    EXPECT_EQ(live.output, "live\n");
    EXPECT_EQ(daemon.Requests().back().authorization, "Bearer abc");
}

TEST_F(CtlTls, IsNotTrustedBlindly) {
    Sandbox::WriteFile("/etc/hosts", "127.0.0.1 localhost other\n");
    for (const Arguments& command : {Arguments{"ps"}, Arguments{"logs", "-f", "clock"}}) {
        for (const Arguments& way : {Arguments{"--address", Secure("localhost")},
                                     Arguments{"--address", Secure("other"), "--ca", "/run/daemon.crt"},
                                     Arguments{"--address", Secure("localhost"), "--ca", "/run/none.crt"}}) {
            Arguments arguments = way;
            arguments.insert(arguments.end(), command.begin(), command.end());
            const Result result = RunCtl(arguments, {{{"QXCTL_TOKEN", "abc"}}, ""});
            EXPECT_EQ(result.exitCode, 3) << command[0] << " " << way[1];
            EXPECT_THAT(result.errors, HasSubstr("cannot reach the daemon at https://"));
        }
    }
    EXPECT_EQ(daemon.Log(), "");
}

/// A daemon that answers with bytes.
class CtlWrongAnswers : public testing::Test {
protected:
    static Result AnsweredWith(const std::string& bytes, const Arguments& arguments = {"ps"}) {
        const ScriptedServer server(ScriptedDaemon::Socket,
                                    [&](ScriptedServer::Connection& connection) { connection.Send(bytes); });
        return RunCtl(arguments);
    }

    static std::string Http(const std::string& body) {
        return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }
};

TEST_F(CtlWrongAnswers, AreNotUnderstood) {
    for (const char* body :
         {"", "no JSON", "[]", "7", "null", "{}", R"({"containers":{}})", R"({"containers":[7]})",
          R"({"containers":[{"name":7}]})", "{\"containers\":[\"\xFF\"]}"}) {
        const Result result = AnsweredWith(Http(body));
        EXPECT_EQ(result.exitCode, 1) << body;
        EXPECT_THAT(result.errors, HasSubstr("the daemon's answer is not understood")) << body;
    }
    EXPECT_EQ(AnsweredWith(Http(std::string(100000, '['))).exitCode, 1);
    EXPECT_EQ(AnsweredWith(Http("no JSON"), {"ps", "--json"}).output, "");
}

TEST_F(CtlWrongAnswers, OfEveryCommandAreNotUnderstood) {
    Sandbox::WriteFile("/run/file", "x");
    for (const Arguments& arguments : std::vector<Arguments>{{"status"},
                                                             {"start"},
                                                             {"set", "--cores", "1"},
                                                             {"check"},
                                                             {"cores"},
                                                             {"version"},
                                                             {"images"},
                                                             {"load", "/run/file"},
                                                             {"compose", "ls"},
                                                             {"compose", "check", "/run/file"},
                                                             {"compose", "start", "x"},
                                                             {"plugins"},
                                                             {"messages"},
                                                             {"token", "ls"},
                                                             {"token", "create", "x"}}) {
        for (const char* body :
             {"{}", "[[]]", R"({"verdict":"ok","ok":true,"code":0,"result":7,"settings":1,"service":[]})"}) {
            const Result result = AnsweredWith(Http(body), arguments);
            const bool isFine = arguments[0] == "compose" && arguments[1] == "start" && body[2] == 'v';
            EXPECT_EQ(result.exitCode, isFine ? 0 : 1) << arguments[0] << " " << body;
        }
    }
}

TEST_F(CtlWrongAnswers, AreNoHttp) {
    EXPECT_EQ(AnsweredWith("SSH-2.0-x\r\n").exitCode, 1);
    EXPECT_EQ(AnsweredWith("HTTP/9.9 200 OK\r\n\r\n").exitCode, 1);
    EXPECT_EQ(AnsweredWith("").exitCode, 3);
    EXPECT_EQ(AnsweredWith("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf").exitCode, 3);
}

TEST_F(CtlWrongAnswers, AreTooLarge) {
    const auto endless = [](ScriptedServer::Connection& connection) {
        connection.StartChunked();
        const std::string chunk(1 << 20, ' ');
        while (connection.SendChunk(chunk)) {
        }
    };
    const ScriptedServer server(ScriptedDaemon::Socket, endless);

    const Result result = RunCtl({"ps"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.errors, HasSubstr("more than 64 MiB"));
}

TEST_F(CtlWrongAnswers, ThatRefuseWithoutADetail) {
    const Result result = AnsweredWith("HTTP/1.1 500 Oh\r\nContent-Length: 4\r\n\r\nOops");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "qxctl: the daemon refused with HTTP status 500\n");
    EXPECT_EQ(AnsweredWith("HTTP/1.1 302 Go\r\nLocation: /x\r\nContent-Length: 0\r\n\r\n").exitCode, 1);
    EXPECT_THAT(
        AnsweredWith("HTTP/1.1 404 No\r\nContent-Length: 26\r\n\r\n{\"detail\":\"a\\u001b[31m\\n\"}\n")
            .errors,
        HasSubstr("a\uFFFD[31m\n"));
}

TEST(CtlUpload, EndsWhenTheDaemonDoesNotWantMore) {
    Sandbox::WriteFile("/run/a.tar", std::string(50'000'000, 'x'));
    // Without reading the body.
    const ScriptedServer server(ScriptedDaemon::Socket, ScriptedServer::Answer(200));
    ScriptedDaemon daemon;
    daemon.On("POST /images", ScriptedDaemon::Problem(403, "No"));

    EXPECT_EQ(RunCtl({"load", "/run/a.tar"}).exitCode, 4);
}

TEST(CtlOutput, FailsWhenItCannotBeWritten) {
    ScriptedDaemon daemon;
    daemon.On("GET /containers", {200, None});

    const int status = std::system(QXCTL_PROGRAM " ps >/dev/full 2>/run/ctl.err");

    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_THAT(CtlRun::Errors(), HasSubstr("cannot write the result"));
}

TEST(CtlHelp, NamesACommandThatIsUnknown) {
    const Result result = RunCtl({"foo", "--json"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.errors, HasSubstr("there is no command 'foo'"));
    EXPECT_EQ(RunCtl({}).exitCode, 2);
}

TEST(CtlHelp, IsThereForEverything) {
    const std::vector<Arguments> commands{{},
                                          {"status"},
                                          {"enable"},
                                          {"disable"},
                                          {"start"},
                                          {"stop"},
                                          {"set"},
                                          {"check"},
                                          {"cores"},
                                          {"ps"},
                                          {"inspect"},
                                          {"container", "start"},
                                          {"container", "stop"},
                                          {"container", "restart"},
                                          {"container", "rm"},
                                          {"logs"},
                                          {"images"},
                                          {"load"},
                                          {"rmi"},
                                          {"compose", "ls"},
                                          {"compose", "cat"},
                                          {"compose", "put"},
                                          {"compose", "edit"},
                                          {"compose", "rm-file"},
                                          {"compose", "check"},
                                          {"compose", "create"},
                                          {"compose", "start"},
                                          {"compose", "stop"},
                                          {"compose", "rm"},
                                          {"plugins"},
                                          {"plugin", "add"},
                                          {"plugin", "rm"},
                                          {"plugin", "activate"},
                                          {"plugin", "deactivate"},
                                          {"plugin", "rescan"},
                                          {"messages"},
                                          {"token", "create"},
                                          {"token", "ls"},
                                          {"token", "rm"},
                                          {"metrics"},
                                          {"version"},
                                          {"completion"}};
    for (Arguments arguments : commands) {
        arguments.push_back("--help");
        const Result result = RunCtl(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(result.output, HasSubstr("Examples:\n  qxctl ")) << arguments[0];
        EXPECT_THAT(result.output, Not(HasSubstr("__complete")));
    }
    EXPECT_THAT(RunCtl({"--help"}).output, HasSubstr("Exit codes:\n  0 "));
    for (const Arguments& arguments :
         {Arguments{}, Arguments{"none"}, Arguments{"compose"}, Arguments{"ps", "x"}}) {
        EXPECT_EQ(RunCtl(arguments).exitCode, 2);
    }
}

}  // namespace
