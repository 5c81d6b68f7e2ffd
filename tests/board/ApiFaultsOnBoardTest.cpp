// What the daemon makes of a board with something wrong.

#include "ApiOnBoard.h"
#include "PluginBoard.h"

#include <gmock/gmock.h>
#include <chrono>
#include <future>
#include <set>
#include <thread>

using namespace OnBoard;
using QxNJson::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr const char* Disabled = "The container service is disabled; enable it, then start it.";

std::string Problem() { return Ask("/service").Json()["problem"].get<std::string>(); }

size_t Restarts() { return Ask("/service").Json()["restarts"]["history"].size(); }

/// Runs a line of shell before everything that Podman is started for: the service's link never replaces what exists.
void BeforePodman(const std::string& command) {
    WriteFile("/bin/podman", "#!/bin/sh\n" + command + "\nexec /mnt/containers_tools/bin/podman \"$@\"\n");
    Output("chmod +x /bin/podman");
}

/// @return "taken" or "free", as a daemon that starts would find the board
std::string Mark() { return Output("test -e /run/qxcontainerd.taken && echo taken || echo free"); }

/// Puts certificates in place.
void Install(const std::string& key) {
    Output("mkdir -p " + CONTAINER_CERTS_DIR + " && cd /opt/qx/share/certs && cp ca.crt server.crt " +
           CONTAINER_CERTS_DIR + " && cp " + key + " " + CONTAINER_CERTS_DIR + "/server.key");
}

/// Makes a certificate of the server's key.
void Make(const std::string& file, int days) {
    Output("cd " + CONTAINER_CERTS_DIR + " && openssl req -x509 -key server.key -subj /CN=board -days " +
           std::to_string(days) + " -out " + file + " 2>/dev/null");
}

/// Podman hangs, and nothing is done about it.
class HangingForEver : public ApiOnBoard {
protected:
    HangingForEver() : ApiOnBoard({"--restart", "never", "--liveness-deadline", "1"}) {}
};

TEST_F(HangingForEver, PodmanKeepsNobodyWaiting) {
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    Output("pkill -STOP -f '[p]odman system service'");
    ASSERT_TRUE(Becomes("failed"));
    const auto start = std::chrono::steady_clock::now();

    for (int i = 0; i < 20; ++i) {
        const Answer answer = Ask("/containers");
        EXPECT_EQ(answer.status, 503);
        EXPECT_THAT(answer.Detail(), HasSubstr("has not answered"));
    }
    EXPECT_EQ(Post("/images", "--data-binary x").status, 503);
    EXPECT_EQ(Checks().Verdict("podman"), "error");
    EXPECT_EQ(Ask("/cores").status, 200);

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(Post("/service/start").status, 200) << "with a new Podman";
    EXPECT_THAT(Processes("podman system service"), SizeIs(1));
}

TEST_F(ApiOnBoard, ChecksPodmanWhenItIsAsked) {
    Output("pkill -STOP -f '[p]odman system service'");
    const Checks checks;
    EXPECT_EQ(checks.Verdict("podman"), "error");
    EXPECT_THAT(checks.Found("podman"), HasSubstr("has not answered within"));
}

TEST(ApiMessages, OfOthersAreNotThePodmansEnd) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    BeforePodman("[ \"$1\" = start ] && sleep 3");
    Daemon daemon({"--enable", "--restart", "never"});
    ASSERT_TRUE(Becomes("starting"));
    Output(
        "for i in 1 2 3 4 5 6 7 8; do echo '{\"severity\":3,\"source\":\"PLC\",\"text\":\"Podman service of "
        "ours failed\","
        "\"number\":1,\"time\":\"2026-01-01T00:00:00.000Z\"}' >> /run/quolex/messages.jsonl; sleep 0.2; "
        "done");

    EXPECT_EQ(State(), "starting");
    EXPECT_TRUE(Becomes("running"));
}

TEST(ApiStart, CanBeTakenBackWhileItHangs) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    BeforePodman("[ \"$1\" = start ] && sleep 5");
    Daemon daemon({"--enable"});
    ASSERT_TRUE(Becomes("starting"));
    EXPECT_TRUE(Eventually([] {
        const Answer answer = Ask("/containers");
        return answer.status == 503 && answer.Detail().find("just starting or stopping") != std::string::npos;
    }));
    ASSERT_TRUE(Logged("Starting all containers"));
    const Answer change = Ask("/service/settings", "-X PATCH -d '{\"tcpPort\":8443}'");
    EXPECT_EQ(change.status, 409);
    EXPECT_EQ(change.Detail(), "The service is just starting; try again when that is done.");

    EXPECT_EQ(Post("/service/stop").status, 200);

    EXPECT_EQ(State(), "stopped");
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
}

TEST(ApiStart, ThatHangsIsEndedWhenTheServiceHasBeenDisabledMeanwhile) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    BeforePodman("[ \"$1\" = system ] && kill -STOP $$");
    Daemon daemon({"--enable", "--liveness-deadline", "1", "--start-deadline", "15"});
    ASSERT_TRUE(Becomes("starting"));
    ASSERT_TRUE(Eventually([] { return Processes("podman system service").size() == 1; }));

    EXPECT_EQ(Post("/service/disable").status, 200);

    ASSERT_TRUE(Eventually([] { return Problem() == Disabled; }));
    EXPECT_EQ(State(), "failed");
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    EXPECT_EQ(Mark(), "free");
    EXPECT_EQ(Restarts(), 1U) << "what was lost is kept";
}

TEST(ApiStart, LeavesNoMarkWhenItFailsBeforeItTookAnything) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Output("mkdir -p /mnt/containers_tools");  // taken for a mounted image, which has no plugins to link
    Daemon daemon({"--enable"});
    ASSERT_TRUE(Becomes("failed"));
    EXPECT_THAT(Problem(), HasSubstr("file system fails"));
    EXPECT_EQ(Mark(), "free");
}

TEST(ApiPodmansEnd, IsNoticedAtOnce) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Daemon daemon({"--enable", "--restart", "never", "--liveness-interval", "1000"});
    ASSERT_TRUE(Becomes("running"));

    Output("pkill -KILL -f '[p]odman system service'");

    EXPECT_TRUE(Becomes("failed"));
    EXPECT_THAT(Problem(), HasSubstr("Podman is gone"));
}

// --- The service on a TCP port ---

class TcpOnBoard : public ApiOnBoard {
protected:
    TcpOnBoard() : ApiOnBoard({"--tcp-port", "8443"}) {}
};

class OneRestart : public ApiOnBoard {
protected:
    OneRestart() : ApiOnBoard({"--restart-limit", "1"}) {}
};

TEST_F(OneRestart, IsAllWhenOneIsTheLimit) {
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Eventually([] { return Restarts() == 1 && State() == "running"; }));
    Output("pkill -KILL -f '[p]odman system service'");

    ASSERT_TRUE(Becomes("failed"));
    EXPECT_THAT(Problem(), HasSubstr("Podman is gone"));
    EXPECT_THAT(
        Problem(),
        HasSubstr("After so many restarts in a row it is not started again; start the service by hand."));
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(Ask("/service").Json()["restarts"]["inARow"], 0);
}

/// Podman is lost, and its restart far away.
class LateRestart : public testing::Test {
protected:
    static std::vector<std::string> Options() {
        ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
        return {"--enable", "--restart-delay", "600", "--restart-delay-max", "600"};
    }
    void SetUp() override {
        ASSERT_TRUE(Becomes("running"));
        ASSERT_TRUE(Logged("Spawned Podman correctly"));
        Output("pkill -KILL -f '[p]odman system service'");
        ASSERT_TRUE(Becomes("waiting"));
    }

    const Daemon daemon{Options()};
};

TEST_F(LateRestart, NeedNotBeWaitedFor) {
    EXPECT_FALSE(Ask("/service").Json()["restarts"]["nextAt"].is_null());

    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
    EXPECT_TRUE(Ask("/service").Json()["restarts"]["nextAt"].is_null());
    Output("pkill -KILL -f '[p]odman system service'");
    EXPECT_TRUE(Becomes("waiting")) << "it is watched as before";
}

TEST_F(LateRestart, EndsWithTheServiceBeingDisabled) {
    EXPECT_EQ(Post("/service/disable").status, 200);
    EXPECT_TRUE(Becomes("failed"));
    EXPECT_EQ(Problem(), Disabled);
    EXPECT_TRUE(Ask("/service").Json()["restarts"]["nextAt"].is_null());
    EXPECT_EQ(Mark(), "free");
}

/// A Podman that does not answer any more while the service is disabled during its start is stopped, too.
TEST(ApiRestart, OfWhatWasDisabledMeanwhileLeavesNoPodmanThatHangs) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    BeforePodman("[ \"$1\" = system ] && [ -e /tmp/hangs ] && kill -STOP $$");
    Daemon daemon(
        {"--enable", "--restart-delay", "0.2", "--liveness-deadline", "1", "--start-deadline", "15"});
    ASSERT_TRUE(Becomes("running"));
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    Output("touch /tmp/hangs");
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Eventually([] { return Restarts() == 1 && State() == "starting"; }));
    ASSERT_TRUE(Eventually([] { return Processes("podman system service").size() == 1; }));

    EXPECT_EQ(Post("/service/disable").status, 200);

    ASSERT_TRUE(Eventually([] { return Problem() == Disabled; }));
    EXPECT_EQ(State(), "failed");
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    const json history = Ask("/service").Json()["restarts"]["history"];
    ASSERT_EQ(history.size(), 2U);
    EXPECT_THAT(history[1]["cause"].get<std::string>(), HasSubstr("has not answered since the start"));
}

TEST_F(ApiOnBoard, ChangesSettingsAtOnce) {
    const std::string change =
        "curl -s -o /dev/null --unix-socket /run/qxcontainerd/api.sock -X PATCH "
        "http://board/api/v1/service/settings -d ";
    for (int port = 9001; port < 9011; ++port) {
        const std::string cores = std::to_string(port % 2);
        Shell(change + "'{\"tcpPort\":" + std::to_string(port) + "}' & " + change + "'{\"cores\":" + cores +
              "}' & wait");
        const json settings = Ask("/service").Json()["settings"];
        EXPECT_EQ(settings["tcpPort"], port);
        EXPECT_EQ(settings["cores"], port % 2);
    }
}

TEST_F(TcpOnBoard, IsWatchedToo) {
    EXPECT_EQ(Checks().Verdict("tcp"), "ok");
    // One that ends right after its start would not be started again.
    std::this_thread::sleep_for(std::chrono::seconds(11));
    Output("pkill -KILL -f '[p]odman system service.*tcp:'");

    ASSERT_TRUE(Eventually([] { return Restarts() == 1; }));
    EXPECT_THAT(Ask("/service").Json()["restarts"]["history"][0]["cause"].get<std::string>(),
                HasSubstr("TCP port 8443 has ended"));
    EXPECT_TRUE(Becomes("running"));
    EXPECT_TRUE(Eventually([] { return Processes("podman system service").size() == 2; }));
}

TEST(TcpWithAWrongKey, IsReportedWithoutRestarts) {
    Install("client.key");
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Daemon daemon({"--enable", "--tcp-port", "8443", "--liveness-interval", "0.5"});
    ASSERT_TRUE(Becomes("running"));

    ASSERT_TRUE(Eventually([] { return !Problem().empty(); }));
    EXPECT_THAT(Problem(), HasSubstr("right after its start"));
    // Later, too.
    std::this_thread::sleep_for(std::chrono::seconds(12));
    EXPECT_EQ(State(), "running");
    EXPECT_EQ(Restarts(), 0U);
    const Checks checks;
    EXPECT_EQ(checks.Verdict("tcp"), "error");
    EXPECT_EQ(checks.Verdict("certificates"), "error");
    EXPECT_THAT(checks.Found("certificates"), HasSubstr("server.key is not the key of server.crt"));
    EXPECT_EQ(checks.Verdict("podman"), "ok");
}

// --- Boards that are not ready ---

/// The user storage is not mounted yet when the daemon starts, and waited for.
class LateDrive : public testing::Test {
protected:
    static std::vector<std::string> TakeAway() {
        ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
        Output("mkdir /run/drive && mount --move /userstorage1 /run/drive");
        return {"--enable", "--restart", "always", "--restart-delay", "1", "--restart-limit", "50"};
    }
    void SetUp() override { ASSERT_TRUE(Becomes("waiting")); }
    static void Come() { Output("mount --move /run/drive /userstorage1"); }

    const Daemon daemon{TakeAway()};
};

TEST_F(LateDrive, BringsTheService) {
    EXPECT_THAT(Problem(), HasSubstr("userstorage1"));
    Come();
    EXPECT_TRUE(Becomes("running"));
    EXPECT_EQ(Ask("/service").Json()["enabled"], true);
}

TEST_F(LateDrive, DoesNotUndoThatTheServiceWasDisabled) {
    EXPECT_EQ(Post("/service/disable").status, 200);
    ASSERT_TRUE(Becomes("failed"));
    Come();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(State(), "failed");
    EXPECT_EQ(Problem(), Disabled);
    EXPECT_EQ(Ask("/service").Json()["enabled"], false);
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
}

/// The library has written that it switched itself off, which nobody can take back for a while.
TEST_F(LateDrive, IsWaitedForWhileTheSettingsCannotBeWritten) {
    Output("cd /mnt/cfdrive && mount --bind containers containers && mount -o remount,bind,ro containers");
    Come();
    ASSERT_TRUE(Eventually([] {
        return Problem() ==
               "The settings cannot be written; is the configuration drive mounted and writable?";
    }));
    EXPECT_NE(State(), "failed");
    Output("umount /mnt/cfdrive/containers");
    EXPECT_TRUE(Becomes("running"));
    EXPECT_EQ(Ask("/service").Json()["enabled"], true);
}

/// Not even their directory can be made.
TEST_F(LateDrive, IsWaitedForWhileTheSettingsHaveNoDirectory) {
    Output("cd /mnt/cfdrive && mv containers away && touch containers");
    ASSERT_TRUE(Eventually([] {
        return Problem() ==
               "The settings cannot be written; is the configuration drive mounted and writable?";
    }));
    Output("cd /mnt/cfdrive && rm containers && mv away containers");
    Come();
    EXPECT_TRUE(Becomes("running"));
}

/// The library reads the file once more in a start, after the daemon has.
TEST(ApiStart, TakesThePortThatTheFileHasLast) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Daemon daemon(std::vector<std::string>{});
    ASSERT_TRUE(Becomes("failed"));
    // Two pipes tell two readers something else. Each is gone from its place before its reader has all of it; behind the
    // second one stands the file again.
    WriteFile("/tmp/script", "cd " + SETTINGS_FILE.substr(0, SETTINGS_FILE.rfind('/')) +
                                 "\nname=" + SETTINGS_FILE.substr(SETTINGS_FILE.rfind('/') + 1) +
                                 "\n"
                                 "last='{\"enabled\": true, \"tcp_port\": 8443}'\n"
                                 "echo \"$last\" >last\nmkfifo first second\nmv first $name\n"
                                 "exec 3>$name\nmv second $name\n"
                                 "echo '{\"enabled\": true, \"tcp_port\": 9443}' >&3\nexec 3>&-\n"
                                 "exec 3>$name\nmv last $name\necho \"$last\" >&3\n");
    auto script = std::async(std::launch::async, [] { return Shell("timeout 20 sh /tmp/script").status; });
    ASSERT_TRUE(Eventually([] { return Shell("test -p " + SETTINGS_FILE).status == 0; }));

    EXPECT_EQ(Post("/service/start").status, 200);

    EXPECT_EQ(script.get(), 0);
    const Checks checks;
    EXPECT_EQ(checks.Verdict("tcp"), "ok");
    EXPECT_EQ(checks.Found("tcp"), "port 8443");
    EXPECT_EQ(Output("cat /run/qxcontainerd.taken"), "8443");
}

TEST_F(LateDrive, BringsTheServiceWithTheSettingsOfTheFile) {
    WriteSettings(R"({"enabled": true, "tcp_port": 8443})");
    Come();
    ASSERT_TRUE(Becomes("running"));
    EXPECT_EQ(Ask("/service").Json()["settings"]["tcpPort"], 8443);
    const Checks checks;
    EXPECT_EQ(checks.Verdict("tcp"), "ok");
    EXPECT_EQ(checks.Found("tcp"), "port 8443");

    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    const size_t before = Restarts();
    WriteSettings(R"({"enabled": true, "tcp_port": 9443})");
    // Else the library would write what it has.
    Output("cd /mnt/cfdrive && mount --bind containers containers && mount -o remount,bind,ro containers");
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Eventually([&] { return Restarts() > before; }));
    ASSERT_TRUE(Becomes("running"));
    EXPECT_EQ(Ask("/service").Json()["settings"]["tcpPort"], 8443) << "a restart goes on with what it has";
    Output("umount /mnt/cfdrive/containers");
}

TEST_F(LateDrive, IsNotWaitedForAfterAStop) {
    EXPECT_EQ(Post("/service/stop").status, 200);
    Come();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    EXPECT_EQ(State(), "stopped");
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
}

/// What the settings say when the service is started by hand counts as much as what somebody says here.
TEST(AlwaysOnBoard, AServiceThatTheSettingsEnableIsStartedAgain) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Daemon daemon({"--restart-delay", "0.1"});
    ASSERT_TRUE(Becomes("failed"));
    WriteSettings(R"({"enabled": true})");
    EXPECT_EQ(Post("/service/start").status, 200);
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    Output("pkill -KILL -f '[p]odman system service'");
    EXPECT_TRUE(Eventually([] { return Restarts() == 1 && State() == "running"; }));
}

TEST(AlwaysOnBoard, AServiceThatIsDisabledStaysSo) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Daemon daemon({"--restart", "always", "--restart-delay", "0.1"});
    ASSERT_TRUE(Becomes("failed"));
    EXPECT_EQ(Problem(), Disabled);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(State(), "failed");
    EXPECT_EQ(Restarts(), 0U);
    EXPECT_EQ(Post("/service/start").status, 409);
    EXPECT_EQ(Ask("/service").Json()["enabled"], false);

    EXPECT_EQ(Post("/service/enable").status, 200);
    EXPECT_EQ(State(), "stopped");
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
}

class AlwaysOnReadyBoard : public ApiOnBoard {
protected:
    AlwaysOnReadyBoard() : ApiOnBoard({"--restart", "always"}) {}
};

TEST_F(AlwaysOnReadyBoard, AStopStaysAStop) {
    EXPECT_EQ(Post("/service/stop").status, 200);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(State(), "stopped");
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    EXPECT_EQ(Restarts(), 0U);
}

TEST_F(ApiOnBoard, IsNotStartedAgainWhenItWasDisabled) {
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    EXPECT_EQ(Post("/service/disable").status, 200);
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Becomes("failed"));
    EXPECT_EQ(Problem(), Disabled);
    EXPECT_THAT(Ask("/service").Json()["restarts"]["history"][0]["cause"].get<std::string>(),
                HasSubstr("Podman is gone"));
    EXPECT_EQ(Post("/service/start").status, 409);
    EXPECT_EQ(Post("/service/enable").status, 200);
    EXPECT_EQ(State(), "stopped");
    EXPECT_TRUE(Ask("/service").Json()["startedAt"].is_null());
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
}

TEST(ApiRestart, IsGivenUpWhenTheServiceIsDisabledMeanwhile) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    BeforePodman("[ \"$1\" = stop ] && sleep 5");
    Daemon daemon({"--enable", "--restart-delay", "0.2"});
    ASSERT_TRUE(Becomes("running"));
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Logged("Stopping all running containers")) << "what ran before is stopped first";
    ASSERT_EQ(State(), "starting");

    EXPECT_EQ(Post("/service/disable").status, 200);

    ASSERT_TRUE(Becomes("failed"));
    EXPECT_EQ(Problem(), Disabled);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(State(), "failed") << "nor is that a loss of its own";
    EXPECT_EQ(Restarts(), 1U);
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
}

/// What is disabled is stopped when Podman is lost; enabling it meanwhile comes too late for that, not for a start.
TEST(ApiRestart, OfWhatIsEnabledAgainWhileItStopsIsByHand) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    BeforePodman("[ \"$1\" = stop ] && sleep 3");
    Daemon daemon({"--enable"});
    ASSERT_TRUE(Becomes("running"));
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    EXPECT_EQ(Post("/service/disable").status, 200);
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Becomes("stopping"));

    EXPECT_EQ(Post("/service/enable").status, 200);

    ASSERT_TRUE(Becomes("stopped"));
    EXPECT_EQ(Problem(), "The service has been enabled and can be started.");
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
}

TEST(LoopedCertificates, AreAProblemWithATcpPortOnly) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Output("mkdir -p " + CONTAINER_CERTS_DIR + " && ln -s ca.crt " + CONTAINER_CERTS_DIR + "/ca.crt");
    {
        Daemon daemon({"--enable", "--tcp-port", "8443"});
        ASSERT_TRUE(Becomes("failed"));
        EXPECT_THAT(Problem(), HasSubstr("file system fails"));
        EXPECT_EQ(daemon.Stop(), 0);
        EXPECT_EQ(Mark(), "free");
    }
    Daemon daemon({"--enable", "--tcp-port", "0"});
    EXPECT_TRUE(Becomes("running"));
}

/// The library looks no further than to the first that is missing.
TEST(LoopedCertificates, AreNoProblemWhereNobodyLooksAtThem) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Output("mkdir -p " + CONTAINER_CERTS_DIR + " && ln -s server.key " + CONTAINER_CERTS_DIR + "/server.key");
    Daemon daemon({"--enable", "--tcp-port", "8443"});
    EXPECT_TRUE(Becomes("running"));
    EXPECT_TRUE(Logged("TLS will not be enabled"));
}

TEST(ApiPlugins, AreNotWaitedForWhileACommandOfOneTakesItsTime) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    PluginBoard::Install({"slow", "sleep 8"});
    Daemon daemon({"--enable"});
    ASSERT_TRUE(Becomes("starting"));
    const Answer answer = Ask("/plugins");
    EXPECT_EQ(answer.status, 503);
    EXPECT_THAT(answer.Detail(), HasSubstr("The service is just starting, which takes its time"));
    ASSERT_TRUE(Becomes("running"));
    EXPECT_EQ(Ask("/plugins").Json()["plugins"][0]["isLoaded"], true);
}

/// The user storage takes nothing, as a disk that is worn or busy may for seconds.
class FrozenDisk : public ApiOnBoard {
protected:
    FrozenDisk() {
        PluginBoard::Install({"switched"});
        Output("mkdir -p " + COMPOSE_FILES_PATH + " && echo 'services: {}' >" + COMPOSE_FILES_PATH +
               "old.yaml");
        // Before this test is ended for taking too long: what waits for the disk could not be killed by the board.
        Shell("(sleep 100; fsfreeze --unfreeze /userstorage1) >/dev/null 2>&1 &");
        Output("fsfreeze --freeze /userstorage1");
    }
    ~FrozenDisk() override { Thaw(); }

    static void Thaw() { Shell("fsfreeze --unfreeze /userstorage1"); }

    /// Asks for something that cannot be done now.
    void Begin(const std::string& path, const std::string& words) {
        changes.push_back(std::async(std::launch::async, [=] { return Ask(path, words).status; }));
    }

    /// Long before the disk goes on by itself.
    static void ExpectAnswer(const std::string& path) { EXPECT_EQ(Ask(path, "-m 8").status, 200) << path; }

    std::vector<std::future<int>> changes;
};

TEST_F(FrozenDisk, HoldsUpNobodyWhoDoesNotNeedIt) {
    Begin("/compose-files/new.yaml", "-X PUT --data-binary 'services: {}'");
    for (int i = 0; i < 5; ++i) {
        Begin("/compose-files/old.yaml", "-X DELETE");
    }
    Begin("/images", "-X POST --data-binary x");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    for (const char* path : {"/service", "/containers", "/session", "/plugins", "/messages", "/check",
                             "/compose-files", "/compose-files/old.yaml", "/projects", "/cores"}) {
        ExpectAnswer(path);
    }
    for (const std::future<int>& change : changes) {
        EXPECT_EQ(change.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
            << "it was not needed";
    }

    Thaw();
    EXPECT_EQ(changes.at(0).get(), 201);
    std::multiset<int> removals;
    for (size_t at = 1; at < 6; ++at) {
        removals.insert(changes.at(at).get());
    }
    EXPECT_THAT(removals, testing::ElementsAre(204, 404, 404, 404, 404));
    EXPECT_EQ(changes.at(6).get(), 422);
    EXPECT_EQ(Output("ls -A " + COMPOSE_FILES_PATH), "new.yaml");
}

TEST_F(FrozenDisk, IsWhyPluginsAreNotListed) {
    Begin("/plugins/switched-1.0.0.crp/deactivate", "-X POST");
    Answer answer;
    ASSERT_TRUE(Eventually([&] {
        answer = Ask("/plugins", "-m 15");
        return answer.status != 200;
    }));

    EXPECT_EQ(answer.status, 503);
    EXPECT_EQ(answer.Detail(), "The board takes its time for something else; try again soon.");
    EXPECT_EQ(State(), "running");
    ExpectAnswer("/check");
    const Checks checks;
    EXPECT_EQ(checks.Verdict("plugins"), "unknown");
    EXPECT_EQ(checks.Found("plugins"), answer.Detail());
    Begin("/service/settings", "-X PATCH -d '{\"cores\":1}'");
    EXPECT_EQ(changes.at(1).wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    Thaw();
    EXPECT_EQ(changes.at(0).get(), 204);
    EXPECT_EQ(changes.at(1).get(), 200);
    EXPECT_EQ(Ask("/plugins").Json()["plugins"][0]["deactivatedNext"], true);
}

TEST_F(ApiOnBoard, TellsWhenLayersFindNoRoom) {
    ImportBusybox();
    Output(
        "podman run --network=none --name big localhost/busybox:1 dd if=/dev/urandom of=/big bs=1M count=40 "
        "&& "
        "podman commit -q big localhost/big:1 && podman save -q -o /tmp/big.tar localhost/big:1 && "
        "podman rm -f big && podman rmi -f localhost/big:1");
    Output(
        "free=$(($(stat -f -c '%a * %S' /userstorage1) - 60 * 1024 * 1024)); "
        "mkdir -p /userstorage1/container_rte; fallocate -l $free /userstorage1/ballast");
    const Answer answer = Post("/images", "-T /tmp/big.tar");
    EXPECT_EQ(answer.status, 507) << answer.text;
    EXPECT_THAT(answer.Detail(), HasSubstr("There is no room for the image"));
    EXPECT_EQ(Output("find " + IMAGES_STORAGE_DIR + " -type f | wc -l"), "0");
}

TEST_F(ApiOnBoard, KeepsNothingWithoutAUserStorage) {
    Output("umount -l /userstorage1");
    for (const char* const file : {"/compose-files/x.yaml", "/plugins/x.crp"}) {
        const Answer answer = Ask(file, "-X PUT --data-binary x");
        EXPECT_EQ(answer.status, 409) << file;
        EXPECT_THAT(answer.Detail(), HasSubstr("Nothing was kept")) << file;
    }
    EXPECT_EQ(Post("/images", "--data-binary x").status, 409);
    EXPECT_EQ(Output("find /userstorage1 -type f | wc -l"), "0");
    const Checks checks;
    EXPECT_EQ(checks.Verdict("user-storage"), "error");
    EXPECT_EQ(checks.Verdict("space"), "unknown");
    EXPECT_EQ(checks.Verdict("write-cache"), "unknown");
    EXPECT_EQ(checks.Found("write-cache"), checks.Found("space")) << "another disk's mode says nothing";
}

TEST_F(ApiOnBoard, TakesNoImageWhileTheServiceIsStopped) {
    EXPECT_EQ(Post("/service/stop").status, 200);
    Output("truncate -s 1G /tmp/large");
    const auto start = std::chrono::steady_clock::now();
    const Answer answer = Post("/images", "-T /tmp/large");
    EXPECT_EQ(answer.status, 503);
    EXPECT_THAT(answer.Detail(), HasSubstr("Somebody stopped the service"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(ApiOnBoard, FindsWhatIsWrongWithLinksDiskAndCores) {
    Output(
        "rm /bin/crun /bin/docker-compose; ln -s /bin/true /bin/crun; printf 'write through' > "
        "/sys/block/sda/queue/write_cache");
    Shell("sh -c 'echo $$ >" + ContainerCpuSet() + "/cgroup.procs; exec sleep 100' >/dev/null 2>&1 &");
    ASSERT_TRUE(Eventually([] { return !Ask("/cores").Json()["strangers"].empty(); }));

    const Checks checks;
    EXPECT_EQ(checks.Found("links"), "/bin/crun leads to /bin/true; /bin/docker-compose is missing");
    EXPECT_THAT(checks.Remedy("links"), HasSubstr("Remove what stands there"));
    EXPECT_EQ(checks.Verdict("write-cache"), "warning");
    EXPECT_THAT(checks.Found("cpu-set"), HasSubstr("processes that do not belong there: 1"));

    Output("rm /bin/crun; pkill sleep");
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d '{\"cores\":0}'").status, 200);
    const Checks later;
    EXPECT_EQ(later.Found("links"), "/bin/crun is missing; /bin/docker-compose is missing");
    EXPECT_THAT(later.Remedy("links"), HasSubstr("makes missing links"));
    EXPECT_THAT(later.Found("cpu-set"), HasSubstr("configured are 0"));
}

TEST_F(ApiOnBoard, FindsWhatIsWrongWithCertificates) {
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d '{\"tcpPort\":8443}'").status, 200);
    const Checks without;
    EXPECT_EQ(without.Verdict("certificates"), "warning");
    EXPECT_EQ(without.Found("tcp"), "Podman was started with no TCP port, the settings say 8443");
    EXPECT_THAT(without.Found("certificates"), HasSubstr("missing: ca.crt, server.crt, server.key"));

    Install("server.key");
    Make("server.crt", 100);
    Make("ca.crt", 100);
    EXPECT_EQ(Checks().Verdict("certificates"), "ok");
    Make("server.crt", 20);
    EXPECT_EQ(Checks().Verdict("certificates"), "warning");
    Output("cd " + CONTAINER_CERTS_DIR +
           " && openssl req -x509 -key server.key -subj /CN=board -not_before 20200101000000Z -not_after "
           "$(date -u -d '-1 hour' +%Y%m%d%H%M%SZ) -out server.crt 2>/dev/null");
    const Checks ended;
    EXPECT_EQ(ended.Verdict("certificates"), "error");
    EXPECT_THAT(ended.Found("certificates"), HasSubstr("server.crt has ended"));
    Make("server.crt", 100);
    Output("printf x > " + CONTAINER_CERTS_DIR + "/ca.crt");
    const Checks wrong;
    EXPECT_EQ(wrong.Verdict("certificates"), "error");
    EXPECT_THAT(wrong.Found("certificates"), HasSubstr("ca.crt is no certificate"));
}

TEST_F(ApiOnBoard, AsksAToolForItsVersionOnce) {
    const std::string tool = "/mnt/containers_tools/bin/crun";
    Output(
        "cp " + tool +
        " /tmp/crun && printf '#!/bin/sh\\necho x >>/tmp/asked\\nexec /tmp/crun \"$@\"\\n' >/tmp/asking && "
        "chmod +x /tmp/asking && mount --bind /tmp/asking " +
        tool);
    const std::string found = Checks().Found("versions");
    EXPECT_THAT(found, testing::MatchesRegex(
                           "podman [0-9.]+, crun [0-9.]+, conmon [0-9.]+, docker-compose [0-9.]+.*"));
    EXPECT_EQ(Checks().Found("versions"), found);
    EXPECT_EQ(Output("wc -l </tmp/asked"), "1");
    Output("sleep 1.1; umount " + tool +
           "; sed -i 's/echo x/echo yy/' /tmp/asking; mount --bind /tmp/asking " + tool);
    EXPECT_EQ(Checks().Found("versions"), found);
    EXPECT_EQ(Output("tail -n 1 /tmp/asked"), "yy");
}

TEST_F(ApiOnBoard, StopsAlsoWhenTheSettingsCannotBeWritten) {
    Output("mv /mnt/cfdrive/containers /mnt/cfdrive/away && touch /mnt/cfdrive/containers");
    EXPECT_EQ(Post("/service/stop").status, 200);
    EXPECT_EQ(State(), "stopped");
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    EXPECT_EQ(Mark(), "free");

    const Answer start = Post("/service/start");
    EXPECT_EQ(start.status, 409);
    EXPECT_THAT(start.Detail(), HasSubstr("file system fails"));
    EXPECT_EQ(State(), "failed");
    Output("rm /mnt/cfdrive/containers && mv /mnt/cfdrive/away /mnt/cfdrive/containers");
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
    EXPECT_THAT(Processes("podman system service"), SizeIs(1));
    EXPECT_EQ(daemon.Stop(), 0);
}

TEST_F(ApiOnBoard, SaysThatSettingsCannotBeWritten) {
    const std::string unwritable =
        "The settings cannot be written; is the configuration drive mounted and writable?";
    const std::pair<const char*, const char*> troubles[] = {
        {"mv containers away && touch containers", "rm containers && mv away containers"},
        {"mount --bind containers containers && mount -o remount,bind,ro containers", "umount containers"}};
    for (const auto& [trouble, end] : troubles) {
        Output(std::string("cd /mnt/cfdrive && ") + trouble);
        const Answer change = Ask("/service/settings", "-X PATCH -d '{\"tcpPort\":8443}'");
        EXPECT_EQ(change.status, 500) << trouble;
        EXPECT_EQ(change.Detail(), unwritable);
        const Answer disable = Post("/service/disable");
        EXPECT_EQ(disable.status, 500) << trouble;
        EXPECT_EQ(disable.Detail(), unwritable);
        const json service = Ask("/service").Json();
        EXPECT_EQ(service["settings"]["tcpPort"], 0) << "what is refused is not done in part";
        EXPECT_EQ(service["enabled"], true);
        Output(std::string("cd /mnt/cfdrive && ") + end);
    }
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d '{\"cores\":0}'").status, 200);
    EXPECT_EQ(Ask("/service").Json()["settings"]["tcpPort"], 0) << "nor does it come back";
    EXPECT_THAT(Output("cat " + SETTINGS_FILE), HasSubstr("\"tcp_port\": 0"));
    EXPECT_EQ(Post("/service/disable").status, 200);
    EXPECT_EQ(Ask("/service").Json()["enabled"], false);
}

TEST_F(ApiOnBoard, EndsInOrderWhileAFileIsUploaded) {
    Shell(
        "head -c 50M /dev/zero >/tmp/large; (curl -s --limit-rate 1M --unix-socket "
        "/run/qxcontainerd/api.sock "
        "-T /tmp/large http://board/api/v1/plugins/large.crp >/dev/null 2>&1 &)");
    ASSERT_TRUE(Eventually(
        [] { return !Shell("ls -A /userstorage1/container_rte/plugins 2>/dev/null").output.empty(); }));
    EXPECT_EQ(daemon.Stop(), 0);
    EXPECT_EQ(Output("ls -A /userstorage1/container_rte/plugins"), "");
}

TEST_F(ApiOnBoard, SaysWhyAFileStays) {
    Output(
        "mkdir -p /userstorage1/container_rte/plugins/a.crp "
        "/userstorage1/container_rte/utilities/compose-files/a.yaml");
    for (const char* path : {"/plugins/a.crp", "/compose-files/a.yaml"}) {
        const Answer answer = Ask(path, "-X DELETE");
        EXPECT_EQ(answer.status, 500) << path;
        EXPECT_THAT(answer.Detail(), HasSubstr("cannot be removed: Is a directory"));
    }
    EXPECT_EQ(Ask("/plugins/b.crp", "-X DELETE").status, 404);
    EXPECT_EQ(Ask("/compose-files/b.yaml", "-X DELETE").status, 404);
}

TEST_F(ApiOnBoard, FindsWhatIsWrongWithTheFirmware) {
    Output("umount -l /mnt/containers_tools; umount -l /mnt/cfdrive");
    const Checks checks;
    EXPECT_EQ(checks.Verdict("mount"), "error");
    EXPECT_EQ(checks.Verdict("versions"), "error");
    EXPECT_THAT(checks.Found("versions"), HasSubstr("podman does not run"));
    EXPECT_EQ(checks.Verdict("firmware"), "error");
    EXPECT_THAT(checks.Found("firmware"), HasSubstr("is missing"));
}

TEST_F(ApiOnBoard, ChecksAFileAsWhatItWillBe) {
    const std::string text =
        "-d 'services: {web: {image: localhost/busybox:1, env_file: ./my.env}}' -H 'Content-Type: "
        "application/yaml'";
    Output("mkdir -p " + COMPOSE_FILES_PATH + " && echo A=1 > " + COMPOSE_FILES_PATH + "my.env");
    const json good = Post("/compose-files/check?file=demo.yaml", text).Json();
    EXPECT_EQ(good["valid"], true) << good.dump(2);
    EXPECT_EQ(Post("/compose-files/check?file=Demo.Two.yaml", text).Json()["valid"], false);
    EXPECT_EQ(Post("/compose-files/check?file=../x.yaml", text).status, 400);
    EXPECT_EQ(Post("/compose-files/check", text).Json()["valid"], true);
}

TEST(ApiUploads, ThatWereNeverFinishedAreRemoved) {
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    Output("mkdir -p " + PLUGINS_DIR + " " + IMAGES_STORAGE_DIR + "; cd " + PLUGINS_DIR +
           "; touch .qxcontainerd-upload-aB3dEf qxcontainerd-upload-aB3dEf qxcontainerd-upload-long-er "
           ".upload-aB3dEf; "
           "truncate -s 1000 " +
           IMAGES_STORAGE_DIR + "/.qxcontainerd-upload-xxxxxx");
    Daemon daemon({"--enable"});
    ASSERT_TRUE(Becomes("running"));

    EXPECT_EQ(Output("ls -A " + PLUGINS_DIR + " | sort | tr '\\n' ' '"),
              ".upload-aB3dEf qxcontainerd-upload-long-er ");
    EXPECT_EQ(Output("ls -A " + IMAGES_STORAGE_DIR), "");
    EXPECT_TRUE(Logged("[WARNING] Quolex Container Host: An upload of 1000 bytes in " + IMAGES_STORAGE_DIR +
                       " had never been finished; it has been removed."));
}

TEST(ApiFirstToken, IsMadeByTheDaemonThatNeedsOne) {
    const std::string start =
        "/opt/qx/bin/qxcontainerd --socket /run/other.sock --listen 0.0.0.0:9000 --tokens /tmp/tokens.json "
        "--certificate "
        "/opt/qx/share/certs/server.crt --key /opt/qx/share/certs/server.key ";
    EXPECT_THAT(Shell(start).output, HasSubstr("--make-token"));
    const std::string token =
        Output("/opt/qx/bin/qxcontainerd --tokens /tmp/tokens.json --make-token first --act");
    EXPECT_EQ(Shell("/opt/qx/bin/qxcontainerd --tokens /tmp/tokens.json --make-token first").status, 3);
    EXPECT_EQ(Shell("/opt/qx/bin/qxcontainerd --tokens /tmp/tokens.json --make-token 'a b'").status, 2);
    WriteFile("/tmp/broken.json", "{");
    const Outcome broken = Shell("/opt/qx/bin/qxcontainerd --tokens /tmp/broken.json");
    EXPECT_EQ(broken.status, 3);
    EXPECT_THAT(broken.output,
                HasSubstr("the tokens in /tmp/broken.json cannot be read; mend the file or remove it"));

    Daemon daemon({"--listen", "0.0.0.0:9000", "--tokens", "/tmp/tokens.json", "--certificate",
                   "/opt/qx/share/certs/server.crt", "--key", "/opt/qx/share/certs/server.key"});
    ASSERT_TRUE(Becomes("failed"));
    EXPECT_THAT(Shell("/opt/qx/bin/qxcontainerd --tokens /tmp/tokens.json --make-token more").output,
                HasSubstr("qxctl token create"));
    ASSERT_TRUE(Eventually([&] {
        return Curl("--cacert /opt/qx/share/certs/ca.crt -H 'Authorization: Bearer " + token +
                    "' https://localhost:9000/api/v1/session")
                   .text.find("\"act\"") != std::string::npos;
    }));
}

}  // namespace
