// The command line with the daemon that it is for.

#include "ApiOnBoard.h"
#include "PluginBoard.h"

#include <gmock/gmock.h>

using namespace OnBoard;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

Outcome Ctl(const std::string& words) { return Shell("timeout 60 /opt/qx/bin/qxctl " + words); }

class CtlOnBoard : public ApiOnBoard {
protected:
    CtlOnBoard() {
        RunContainer("clock", "trap exit TERM; while true; do sleep 0.2; done");
        PluginBoard::Install({"network"});
        WriteFile("/tmp/demo.yaml",
                  "services:\n  web: {image: \"localhost/busybox:1\", network_mode: none, "
                  "command: [\"sleep\", \"1000\"], stop_grace_period: 0s}\n");
        Output(
            "echo '{\"severity\":3,\"source\":\"PLC\",\"text\":\"Something happened\",\"number\":1,"
            "\"time\":\"2026-01-01T00:00:00.000Z\"}' >>/run/quolex/messages.jsonl");
    }

    /// Runs a command that has to work.
    static std::string Tell(const std::string& words) {
        const Outcome outcome = Ctl(words);
        EXPECT_EQ(outcome.status, 0) << words << ": " << outcome.output;
        return outcome.output;
    }
};

TEST_F(CtlOnBoard, ShowsWhatThereIs) {
    Tell("compose put /tmp/demo.yaml");
    Tell("token create panel");
    // Before the plugin is found, which is a warning.
    for (const char* words : {"status", "check", "cores", "version", "ps", "inspect clock", "images",
                              "compose ls", "plugins", "messages", "token ls"}) {
        EXPECT_TRUE(QxNJson::json::parse(Tell(std::string("--json ") + words)).is_structured()) << words;
    }
    const std::pair<std::string, std::string> shown[] = {
        {"status", "running"},
        {"check", "Podman answers"},
        {"cores", "containers"},
        {"metrics", "qx[a-z_]*"},
        {"version", "[0-9]+\\.[0-9]+"},
        {"ps", "clock .*running"},
        {"inspect clock", "\"Name\": *\"clock\""},
        {"images", "localhost/busybox:1"},
        {"compose ls", "demo.yaml .*none"},
        {"compose cat demo.yaml", "services:"},
        {"plugin rescan", "network-1.0.0.crp .*not loaded"},
        {"plugins", "network-1.0.0.crp .*not loaded"},
        {"messages", "Something happened"},
        {"token ls", "panel .*look"},
    };
    for (const auto& [words, text] : shown) {
        EXPECT_THAT(Tell(words), ContainsRegex(text)) << words;
    }
}

TEST_F(CtlOnBoard, DoesWhatItIsToldTo) {
    EXPECT_THAT(Tell("set --cores 0"), Not(IsEmpty()));
    EXPECT_EQ(Ask("/service").Json()["settings"]["cores"], 0);
    Tell("disable");
    EXPECT_EQ(Ask("/service").Json()["enabled"], false);
    Tell("enable");
    EXPECT_EQ(Ask("/service").Json()["enabled"], true);

    Tell("container stop clock");
    EXPECT_THAT(Tell("ps"), ContainsRegex("clock .*exited"));
    Tell("container start clock");
    Tell("container restart clock");
    EXPECT_THAT(Tell("ps"), ContainsRegex("clock .*running"));
    EXPECT_EQ(Ctl("container rm clock").status, 1) << "it runs";
    Tell("container rm --force clock");
    EXPECT_EQ(Ctl("inspect clock").status, 5);

    Tell("compose check /tmp/demo.yaml");
    Tell("compose put /tmp/demo.yaml");
    Tell("compose create demo.yaml");
    Tell("compose start demo.yaml");
    EXPECT_THAT(Tell("compose ls"), ContainsRegex("demo.yaml .*running"));
    Tell("compose stop demo.yaml");
    Tell("compose rm demo.yaml");
    Tell("compose rm-file demo.yaml");

    Tell("plugin deactivate network-1.0.0.crp");
    EXPECT_THAT(Tell("plugins"), HasSubstr("off from the next start"));
    Tell("plugin activate network-1.0.0.crp");
    Output("cp " + PLUGINS_DIR + "/network-1.0.0.crp /tmp/more.crp");
    Tell("plugin add /tmp/more.crp");
    Tell("plugin rm more.crp");

    Output("podman save -q -o /tmp/image.tar localhost/busybox:1");
    Tell("rmi localhost/busybox:1");
    EXPECT_THAT(Tell("load /tmp/image.tar"), HasSubstr("localhost/busybox:1"));

    Tell("stop");
    EXPECT_EQ(State(), "stopped");
    EXPECT_EQ(Ctl("ps").status, 1);
    Tell("start");
    EXPECT_EQ(State(), "running");
}

/// The file of the messages is renamed when it is full.
TEST_F(CtlOnBoard, FollowsMessagesIntoTheNextFile) {
    const auto write = [](int number) {
        Output("echo '{\"severity\":3,\"source\":\"PLC\",\"text\":\"number " + std::to_string(number) +
               "\",\"number\":1,\"time\":\"2026-01-01T00:00:00.000Z\"}' >>/run/quolex/messages.jsonl");
    };
    Shell("timeout 30 /opt/qx/bin/qxctl messages -f --tail 1 >/tmp/followed 2>&1 &");
    const auto followed = [](const std::string& text) {
        return Eventually([&] { return ReadFile("/tmp/followed").find(text) != std::string::npos; });
    };
    ASSERT_TRUE(followed("Something happened"));
    write(1);
    EXPECT_TRUE(followed("number 1"));

    write(2);
    Output("mv /run/quolex/messages.jsonl /run/quolex/messages.jsonl.1");
    write(3);
    EXPECT_TRUE(followed("number 3"));
    write(4);
    EXPECT_TRUE(followed("number 4"));

    EXPECT_EQ(Output("grep -c 'number [1-4]' /tmp/followed"), "4") << "each once";
    Output("pkill -f '[q]xctl messages'");
}

}  // namespace
