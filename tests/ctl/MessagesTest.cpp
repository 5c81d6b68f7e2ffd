#include "CtlRun.h"
#include "ScriptedDaemon.h"

#include <gmock/gmock.h>

#include <csignal>

using CtlRun::Result;
using CtlRun::RunCtl;
using QxNJson::json;
using testing::HasSubstr;

namespace {

json Message(int second, int severity, const std::string& text) {
    char time[64];
    snprintf(time, sizeof(time), "2021-11-21T19:00:%02d.123Z", second);
    return {
        {"time", time}, {"severity", severity}, {"number", 1}, {"source", "ContainerRTE"}, {"text", text}};
}

std::string Messages(const std::vector<json>& messages, const char* type = nullptr) {
    json result = json::object();
    if (type != nullptr) {
        result["type"] = type;
    }
    result["messages"] = json::array();
    for (const json& message : messages) {
        result["messages"].push_back(message);
    }
    return result.dump();
}

class CtlMessages : public testing::Test {
protected:
    /// Follows until a text has been shown, then ends the tool as Ctrl-C does.
    static Result FollowUntil(const std::string& text, CtlRun::Arguments arguments = {}) {
        arguments.insert(arguments.begin(), {"messages", "-f"});
        const pid_t tool = CtlRun::Start(arguments);
        EXPECT_TRUE(Sandbox::Eventually([&] { return CtlRun::Output().find(text) != std::string::npos; }));
        kill(tool, SIGINT);
        return CtlRun::Finish(tool);
    }

    ScriptedDaemon daemon;
};

TEST_F(CtlMessages, ListsThem) {
    daemon.On("GET /messages?tail=20", {200, Messages({Message(1, 1, "hello"), Message(2, 2, "a\nb"),
                                                       Message(3, 3, "\x1b[2J"), Message(4, 9, "x")})});

    EXPECT_EQ(RunCtl({"messages", "--tail", "20"}).output,
              "TIME                 SEVERITY  SOURCE        NUMBER  TEXT\n"
              "2021-11-21 19:00:01  info      ContainerRTE       1  hello\n"
              "2021-11-21 19:00:02  warning   ContainerRTE       1  a\uFFFDb\n"
              "2021-11-21 19:00:03  error     ContainerRTE       1  \uFFFD[2J\n"
              "2021-11-21 19:00:04  9         ContainerRTE       1  x\n");
    daemon.On("GET /messages?tail=100", {200, Messages({})});
    EXPECT_EQ(RunCtl({"messages", "--json"}).output, "{\"messages\":[]}\n");
    EXPECT_EQ(RunCtl({"messages", "--tail", "10001"}).exitCode, 2);
}

TEST_F(CtlMessages, FollowsThem) {
    daemon.OnLive("/messages?tail=100", [](ScriptedDaemon::Live& live) {
        live.Send(Messages({Message(1, 1, "old")}, "messages"));
        live.Send(Messages({Message(2, 3, "new\x1b[2J")}, "messages"));
        live.WaitForEnd();
    });

    const Result result = FollowUntil("new");

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output,
              "2021-11-21 19:00:01  info     ContainerRTE 1      old\n"
              "2021-11-21 19:00:02  error    ContainerRTE 1      new\uFFFD[2J\n");
    EXPECT_EQ(result.errors, "");
}

TEST_F(CtlMessages, FollowsThemAsTheyCame) {
    daemon.OnLive("/messages?tail=2", [](ScriptedDaemon::Live& live) {
        live.Send(Messages({Message(1, 1, "one"), Message(2, 1, "two")}, "messages"));
        live.WaitForEnd();
    });

    EXPECT_EQ(FollowUntil("two", {"--json", "--tail", "2"}).output,
              Message(1, 1, "one").dump() + "\n" + Message(2, 1, "two").dump() + "\n");
}

TEST_F(CtlMessages, FollowsNewOnesOnly) {
    // What breaks before it begins begins anew.
    daemon.OnLive("/messages?tail=1", [](ScriptedDaemon::Live& live) { live.Drop(); });
    // The last one before tells after a break which are new.
    daemon.OnLive("/messages?tail=1", [](ScriptedDaemon::Live& live) {
        live.Send(Messages({Message(1, 1, "before")}, "messages"));
        live.Drop();
    });
    daemon.OnLive("/messages?tail=10000", [](ScriptedDaemon::Live& live) {
        live.Send(
            Messages({Message(0, 1, "long before"), Message(1, 1, "before"), Message(2, 1, "in the break")},
                     "messages"));
        live.WaitForEnd();
    });

    EXPECT_EQ(FollowUntil("in the break", {"--json", "--tail", "0"}).output,
              Message(2, 1, "in the break").dump() + "\n");
}

TEST_F(CtlMessages, FollowsTheFirstOfAll) {
    daemon.OnLive("/messages?tail=1", [](ScriptedDaemon::Live& live) {
        live.Send(Messages({}, "messages"));
        live.Send(Messages({Message(1, 1, "first")}, "messages"));
        live.WaitForEnd();
    });

    EXPECT_EQ(FollowUntil("first", {"--json", "--tail", "0"}).output, Message(1, 1, "first").dump() + "\n");
}

TEST_F(CtlMessages, ComesBackWithoutDoubles) {
    daemon.OnLive("/messages?tail=100", [](ScriptedDaemon::Live& live) {
        live.Send(Messages({Message(1, 1, "one"), Message(2, 1, "two"), Message(2, 1, "again")}, "messages"));
        live.Drop();
    });
    daemon.OnLive("/messages?tail=10000", [](ScriptedDaemon::Live& live) {
        live.Send(Messages({Message(0, 1, "older than what was asked for at first"), Message(1, 1, "one"),
                            Message(2, 1, "two"), Message(2, 1, "again"), Message(2, 1, "three")},
                           "messages"));
        live.Drop();
    });
    daemon.OnLive("/messages?tail=10000", [](ScriptedDaemon::Live& live) {
        // The daemon was started anew and knows no more of the old ones.
        live.Send(Messages({Message(3, 1, "four")}, "messages"));
        // Its clock was set back.
        live.Send(Messages({Message(0, 1, "last")}, "messages"));
        live.WaitForEnd();
    });

    const Result result = FollowUntil("last", {"--json"});

    EXPECT_EQ(result.output, Message(1, 1, "one").dump() + "\n" + Message(2, 1, "two").dump() + "\n" +
                                 Message(2, 1, "again").dump() + "\n" + Message(2, 1, "three").dump() + "\n" +
                                 Message(3, 1, "four").dump() + "\n" + Message(0, 1, "last").dump() + "\n");
}

}  // namespace
