#include "ApiOnBoard.h"
#include "CacheModes.h"
#include "PluginBoard.h"
#include "WebSocketClient.h"

#include <gmock/gmock.h>
#include <algorithm>
#include <csignal>

using namespace OnBoard;
using QxNJson::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

/// @return connected Unix sockets of Podman's REST service
size_t ConnectionsToPodman() {
    return static_cast<size_t>(
        std::stoi(Output("grep -c ' 03 .* /run/podman/podman.sock$' /proc/net/unix || true")));
}

TEST_F(ApiOnBoard, ShowsTheServiceAndItsChecks) {
    const json service = Ask("/service").Json();
    EXPECT_EQ(service["enabled"], true);
    EXPECT_EQ(service["podman"]["answering"], true);
    EXPECT_THAT(service["podman"]["version"].get<std::string>(), Not(IsEmpty()));

    const json check = Ask("/check").Json();
    EXPECT_EQ(check["verdict"], "ok") << check.dump(2);
    EXPECT_THAT(check["checks"], SizeIs(15));
}

TEST_F(ApiOnBoard, SaysWhoHasWhichCore) {
    RunContainer("clock", "trap exit TERM; while true; do sleep 0.2; done");
    const json cores = Ask("/cores").Json();
    EXPECT_EQ(cores["effective"], "1");
    EXPECT_EQ(cores["cores"][0]["owner"], "linux");
    EXPECT_EQ(cores["cores"][1]["owner"], "containers");
    EXPECT_EQ(cores["configured"], 1);
    EXPECT_THAT(cores["strangers"], IsEmpty());
    Shell("sh -c 'echo $$ >" + ContainerCpuSet() + "/cgroup.procs; exec sleep 100' >/dev/null 2>&1 &");
    EXPECT_TRUE(Eventually([] { return !Ask("/cores").Json()["strangers"].empty(); }));
    EXPECT_EQ(Ask("/cores").Json()["strangers"][0]["command"], "sleep");
    Shell("pkill sleep");
}

TEST(ApiCores, AreThoseOfTheHypervisorToo) {
    ConfigurePlatform("[Cores]\nTotal=4\nUsable=2\nHypervisor=1\n");
    Daemon daemon({"--enable", "--cores", "0"});
    ASSERT_TRUE(Becomes("running"));
    const json cores = Ask("/cores").Json();
    std::vector<std::string> owners;
    for (const auto& core : cores["cores"]) {
        owners.push_back(core["owner"].get<std::string>());
    }
    EXPECT_THAT(owners, ElementsAre("linux", "linux", "unused", "hypervisor"));
}

/// With the times that it has where nobody sets others.
TEST_F(ApiOnBoard, WaitsForNoHeaderThatComesByteByByte) {
    const auto start = std::chrono::steady_clock::now();
    const Outcome slow = Shell(
        "bash -c 'exec 3<>/dev/tcp/127.0.0.1/8089; printf \"GET / HTTP/1.1\\r\\nHost: \" >&3; "
        "for i in $(seq 60); do printf x >&3 || break; read -rt 1 -n 1 -u 3 && break; "
        "[ $? -gt 128 ] || break; done' 2>&1");
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GT(taken, std::chrono::seconds(8)) << slow.output;
    EXPECT_LT(taken, std::chrono::seconds(30)) << slow.output;
    EXPECT_EQ(Ask("/service").status, 200);
}

TEST_F(ApiOnBoard, StopsAndStartsOnRequest) {
    EXPECT_EQ(Post("/service/stop").status, 200);
    EXPECT_EQ(State(), "stopped");
    EXPECT_THAT(Processes("podman"), IsEmpty());
    const Answer containers = Ask("/containers");
    EXPECT_EQ(containers.status, 503);
    EXPECT_THAT(containers.Detail(), HasSubstr("Somebody stopped the service"));

    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
    EXPECT_EQ(Ask("/containers").status, 200);
}

TEST_F(ApiOnBoard, ChangesSettings) {
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d '{\"tcpPort\":8443}'").status, 200);
    EXPECT_EQ(Ask("/service").Json()["settings"]["tcpPort"], 8443);
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d '{\"tcpPort\":80}'").status, 400);
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d '{\"cores\":500}'").status, 400);
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d '{\"colour\":1}'").status, 400);
    EXPECT_EQ(Ask("/service/settings", "-X PATCH -d 'no'").status, 400);
    EXPECT_EQ(Post("/service/disable").Json()["enabled"], false);
    EXPECT_EQ(Post("/service/enable").Json()["enabled"], true);
}

TEST_F(ApiOnBoard, TakesContainersThroughTheirLife) {
    RunContainer("clock", "trap \"exit 0\" TERM; while :; do echo tick; sleep 1 & wait \\$!; done");
    const json list = Ask("/containers").Json()["containers"];
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0]["name"], "clock");
    EXPECT_EQ(list[0]["state"], "running");
    EXPECT_THAT(list[0]["startedAt"].get<std::string>(), testing::MatchesRegex("20.*T.*Z"));
    EXPECT_EQ(Ask("/containers/clock").Json()["Name"], "clock");

    EXPECT_EQ(Ask("/containers/clock", "-X DELETE").status, 409);
    const json before = Ask("/containers/clock").Json()["State"]["Pid"];
    EXPECT_EQ(Post("/containers/clock/restart").status, 204);
    EXPECT_NE(Ask("/containers/clock").Json()["State"]["Pid"], before);
    EXPECT_EQ(Post("/containers/clock/stop").status, 204);
    EXPECT_EQ(Post("/containers/clock/stop").status, 204);
    EXPECT_EQ(Ask("/containers").Json()["containers"][0]["state"], "exited");
    EXPECT_EQ(Post("/containers/clock/start").status, 204);
    EXPECT_EQ(Ask("/containers/clock?force=true", "-X DELETE").status, 204);
    EXPECT_EQ(Ask("/containers/clock").status, 404);
    EXPECT_EQ(Post("/containers/clock/paint").status, 404);
}

TEST_F(ApiOnBoard, GivesLogsAsText) {
    RunContainer("talker", "echo one; sleep 0.3; echo two >&2; sleep 0.3; echo three");
    ASSERT_TRUE(Eventually([] { return Ask("/containers").Json()["containers"][0]["state"] == "exited"; }));
    EXPECT_EQ(Ask("/containers/talker/logs").text, "one\ntwo\nthree\n");
    EXPECT_EQ(Ask("/containers/talker/logs?tail=1").text, "three\n");
    EXPECT_THAT(Ask("/containers/talker/logs?tail=1&timestamps=true").text,
                testing::MatchesRegex("20.*T.* three\n"));
    EXPECT_EQ(Ask("/containers/nobody/logs").status, 404);
    EXPECT_EQ(Ask("/containers/talker/logs?tail=some").status, 400);
}

TEST_F(ApiOnBoard, GivesWholeLinesOfLogsAsText) {
    ImportBusybox();
    Output("podman run -t --network=none --name screen localhost/busybox:1 echo shown");
    EXPECT_EQ(Ask("/containers/screen/logs").text, "shown\n")
        << "without the carriage return of the terminal";
    Output(
        "podman run --network=none --name parts localhost/busybox:1 sh -c "
        "'printf be; sleep 0.3; echo other >&2; sleep 0.3; echo gun; printf open'");
    EXPECT_EQ(Ask("/containers/parts/logs").text, "other\nbegun\nopen");
    Output(
        "podman run --network=none --name large localhost/busybox:1 sh -c "
        "'head -c 100000 /dev/zero | tr \"\\0\" x; echo; printf out; printf err >&2'");
    EXPECT_EQ(Ask("/containers/large/logs").text, std::string(100000, 'x') + "\nout\nerr");
}

TEST_F(ApiOnBoard, GivesLogsLive) {
    RunContainer("clock", "while :; do echo tick; echo tock >&2; sleep 0.2; done");
    const Outcome seen = Shell("timeout 20 /opt/qx/bin/qxctl logs -f --lines 6 --tail 2 clock");
    EXPECT_EQ(seen.status, 0) << seen.output;
    EXPECT_THAT(seen.output, HasSubstr("tick\n"));
    EXPECT_THAT(seen.output, HasSubstr("tock\n"));
    const Outcome errors = Shell("timeout 20 /opt/qx/bin/qxctl logs -f --stderr --lines 3 clock");
    EXPECT_EQ(errors.status, 0) << errors.output;
    EXPECT_THAT(errors.output, HasSubstr("tock\n"));
    EXPECT_THAT(errors.output, Not(HasSubstr("tick")));
}

/// What came of a log until its line "last".
struct SeenLog {
    explicit SeenLog(WebSocketClient& client) {
        std::string text;
        while (text != "last") {
            const std::string next = client.Next();
            if (next.empty()) {
                break;
            }
            const json message = json::parse(next);
            if (message["type"] == "skipped") {
                skipped += message["count"].get<long>();
            } else if (message["type"] == "lines") {
                const json shown = message["lines"];
                lines += static_cast<long>(shown.size());
                text = shown[shown.size() - 1]["text"].get<std::string>();
            }
        }
    }

    long lines = 0;
    long skipped = 0;
};

TEST_F(ApiOnBoard, TellsASlowViewerHowMuchItMissedAndLetsNobodyWaitForIt) {
    constexpr long Lines = 300000;
    RunContainer("flood",
                 "until [ -e /open ]; do sleep 0.1; done; yes $(head -c 100 /dev/zero | tr \"\\0\" x) | "
                 "head -n " +
                     std::to_string(Lines - 1) + "; echo last; sleep 1000");
    const std::string token = MakeToken("look");
    const std::string path = "/api/v1/containers/flood/logs";
    WebSocketClient slow(8089, path, token);
    WebSocketClient quick(8089, path, token);
    Output("podman exec flood touch /open");

    const SeenLog all(quick);
    EXPECT_GE(all.lines + all.skipped, Lines) << "Podman cuts some into parts";
    const SeenLog rest(slow);
    EXPECT_GT(rest.skipped, 0);
    EXPECT_EQ(rest.lines + rest.skipped, all.lines + all.skipped);
}

TEST_F(ApiOnBoard, TellsWhoWatchesALogThatItStops) {
    RunContainer("clock", "while :; do date +%s; sleep 0.2; done");
    WebSocketClient client(8089, "/api/v1/containers/clock/logs", MakeToken("look"));
    ASSERT_THAT(client.Next(), Not(IsEmpty()));

    daemon.Signal(SIGTERM);

    std::string last;
    for (std::string message = client.Next(); !message.empty(); message = client.Next()) {
        last = message;
    }
    EXPECT_THAT(last, HasSubstr("\"stopping\""));
    EXPECT_EQ(client.Code(), 1000U);
    EXPECT_EQ(daemon.Wait(), 0);
}

TEST_F(ApiOnBoard, ShowsHowLongLinesTake) {
    RunContainer("clock", "while :; do date +%s; sleep 0.2; done");
    const Outcome shown = Shell("timeout 20 /opt/qx/bin/qxctl logs --delay --tail 0 --lines 3 clock");
    EXPECT_EQ(shown.status, 0) << shown.output;
    EXPECT_THAT(shown.output, testing::MatchesRegex("( *[0-9.]+ ms  [0-9]+\n)+"));
    EXPECT_EQ(std::count(shown.output.begin(), shown.output.end(), '\n'), 3);
}

TEST_F(ApiOnBoard, StreamsLogsAsTheyCome) {
    RunContainer("ticker", "while :; do echo tick; sleep 1; done");
    const std::string token = MakeToken("look");
    WebSocketClient client(8089, "/api/v1/containers/ticker/logs/raw?tail=0", token);
    WebSocketClient other(8089, "/api/v1/containers/ticker/logs/raw", token);
    EXPECT_EQ(client.Next(), "tick\n");
    EXPECT_TRUE(client.IsBinary());
    EXPECT_EQ(client.Next(), "tick\n");
    EXPECT_EQ(other.Next(), "tick\n");
    const size_t streams = ConnectionsToPodman();

    client.Vanish();

    EXPECT_TRUE(Eventually([&] { return ConnectionsToPodman() < streams; }));
    EXPECT_EQ(other.Next(), "tick\n");
    Output("podman kill ticker");
    while (!other.Next().empty()) {
    }
    EXPECT_EQ(other.Code(), WebSocketClient::CloseCode::normal);
    EXPECT_EQ(other.Reason(), "end of the log");
}

TEST_F(ApiOnBoard, RefusesRawLogsThatAreNone) {
    RunContainer("talker", "echo one");
    const std::string upgrade =
        "-H 'Connection: Upgrade' -H 'Upgrade: websocket' -H 'Sec-WebSocket-Version: 13' "
        "-H 'Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==' --http1.1";
    EXPECT_EQ(Ask("/containers/nobody/logs/raw", upgrade).status, 404);
    EXPECT_EQ(Ask("/containers/talker/logs/raw?tail=some", upgrade).status, 400);
    EXPECT_EQ(Ask("/containers/talker/logs/raw").status, 426);
}

TEST_F(ApiOnBoard, StopsWithRawLogsWhoseClientsDoNotRead) {
    RunContainer("flood", "trap exit TERM; while :; do echo 0123456789012345678901234567890123456789; done");
    const WebSocketClient stuck(8089, "/api/v1/containers/flood/logs/raw", MakeToken("look"));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(daemon.Stop(), 0);
    EXPECT_TRUE(Eventually([] { return Processes("podman").empty(); }));
}

TEST_F(ApiOnBoard, LoadsAndRemovesImages) {
    ImportBusybox();
    Output("podman save -q -o /tmp/image.tar localhost/busybox:1 && podman rmi -f localhost/busybox:1");
    EXPECT_THAT(Ask("/images").Json()["images"], IsEmpty());
    CacheModes modes;
    const Answer loaded = Post("/images", "-T /tmp/image.tar");
    EXPECT_THAT(modes.Seen(), Contains("write through\n"));
    EXPECT_EQ(loaded.status, 200) << loaded.text;
    EXPECT_EQ(loaded.Json()["names"][0], "localhost/busybox:1");
    EXPECT_EQ(Ask("/images").Json()["images"][0]["names"][0], "localhost/busybox:1");
    EXPECT_EQ(Output("cat /sys/block/sda/queue/write_cache"), "write back");

    const Answer garbage = Post("/images", "--data-binary 'no image'");
    EXPECT_EQ(garbage.status, 422) << garbage.text;
    EXPECT_EQ(Ask("/images/localhost%2Fbusybox:1", "-X DELETE").status, 204);
    EXPECT_EQ(Ask("/images/localhost%2Fbusybox:1", "-X DELETE").status, 404);
    EXPECT_EQ(Output("find /userstorage1 -name '.*upload-*' | wc -l"), "0");
}

TEST_F(ApiOnBoard, RefusesAnUploadThatDoesNotFit) {
    const Answer answer = Post("/images", "-H 'Content-Length: 5000000000' --data-binary x");
    EXPECT_EQ(answer.status, 507) << answer.text;
    EXPECT_EQ(Output("find /userstorage1 -name '.*upload-*' | wc -l"), "0");
}

TEST_F(ApiOnBoard, RunsComposeProjects) {
    ImportBusybox();
    WriteFile("/tmp/p.yaml",
              "services:\n  web: {image: \"localhost/busybox:1\", network_mode: none, command: [\"sleep\", "
              "\"1000\"], "
              "stop_grace_period: 0s}\n");
    EXPECT_EQ(Ask("/compose-files/p.yaml", "-T /tmp/p.yaml").status, 201);
    EXPECT_EQ(Ask("/compose-files/p.yaml", "-T /tmp/p.yaml").status, 204);
    EXPECT_EQ(Ask("/compose-files/p.yaml").text, ReadFile("/tmp/p.yaml"));
    EXPECT_EQ(Ask("/compose-files").Json()["files"][0]["name"], "p.yaml");
    EXPECT_EQ(Post("/compose-files/check", "--data-binary @/tmp/p.yaml").Json()["valid"], true);
    EXPECT_EQ(Post("/compose-files/check", "--data-binary 'services: 7'").Json()["valid"], false);

    const json created = Post("/projects/p.yaml/create").Json();
    EXPECT_EQ(created["code"], 1) << created.dump(2);
    EXPECT_EQ(created["ok"], true);
    EXPECT_EQ(created["result"]["Containers"][0]["Name"], "p-web-1");
    EXPECT_EQ(Post("/projects/p.yaml/start").Json()["code"], 0);
    EXPECT_EQ(Post("/projects/p.yaml/start").Json()["code"], 7);
    EXPECT_EQ(Ask("/projects").Json()["projects"][0]["state"], "running");
    EXPECT_EQ(Post("/projects/p.yaml/stop").Json()["code"], 0);
    EXPECT_EQ(Post("/projects/p.yaml/remove").Json()["code"], 0);
    EXPECT_EQ(Ask("/projects").Json()["projects"][0]["state"], "none");
    EXPECT_EQ(Ask("/compose-files/p.yaml", "-X DELETE").status, 204);
    EXPECT_EQ(Ask("/compose-files/p.yaml").status, 404);
}

TEST_F(ApiOnBoard, KeepsPathsInTheirDirectories) {
    for (const char* name : {"..%2Fa.yaml", "%2Fetc%2Fpasswd", ".hidden.yaml", "a%00.yaml", "a.txt"}) {
        EXPECT_EQ(Ask(std::string("/compose-files/") + name).status, 400) << name;
        EXPECT_EQ(Ask(std::string("/compose-files/") + name, "-T /etc/hostname").status, 400) << name;
    }
    EXPECT_EQ(Ask("/plugins/..%2Fx", "-T /etc/hostname").status, 400);
    EXPECT_EQ(Post("/plugins/..%2Fx/deactivate").status, 404);
    EXPECT_EQ(Ask("/plugins/x%0Ay", "-T /etc/hostname").status, 400);
    EXPECT_EQ(Post("/containers/a%2Fb/start").status, 400);
    EXPECT_EQ(Ask("/images/..%2F..%2Fcontainers", "-X DELETE").status, 400);
    EXPECT_EQ(Curl("--path-as-is --unix-socket /run/qxcontainerd/api.sock http://x/../../etc/passwd").status,
              400);
}

TEST_F(ApiOnBoard, TakesPlugins) {
    WriteFile("/tmp/image", PluginBoard::PluginImage());
    Output("/opt/qx/bin/crp pack --name net --version 1.0 --priority 1 --image /tmp/image -o /tmp/net.crp");
    EXPECT_EQ(Ask("/plugins/net.crp", "-T /tmp/net.crp").status, 201);
    const json plugins = Ask("/plugins").Json()["plugins"];
    ASSERT_THAT(plugins, SizeIs(1));
    EXPECT_EQ(plugins[0]["name"], "net");
    EXPECT_EQ(Post("/plugins/net.crp/deactivate").status, 204);
    EXPECT_THAT(ReadFile(PLUGIN_CONFIG_FILE), HasSubstr("net"));
    const auto isDeactivatedNext = [] {
        return Ask("/plugins").Json()["plugins"][0]["deactivatedNext"].get<bool>();
    };
    EXPECT_EQ(plugins[0]["deactivatedNext"], false);
    EXPECT_TRUE(isDeactivatedNext());
    EXPECT_EQ(Ask("/plugins").Json()["plugins"][0]["isDeactivated"], false)
        << "until the daemon starts again";
    EXPECT_EQ(Post("/plugins/net.crp/activate").status, 204);
    EXPECT_FALSE(isDeactivatedNext());
    EXPECT_EQ(Ask("/plugins/no.crp", "-T /etc/hostname").status, 422);
    EXPECT_EQ(Output("ls -A /userstorage1/container_rte/plugins | grep -c upload || true"), "0");
    EXPECT_EQ(Ask("/plugins/net.crp", "-X DELETE").status, 204);
    EXPECT_THAT(Post("/plugins/rescan").Json()["plugins"], IsEmpty());
}

TEST_F(ApiOnBoard, RunsOneOperationOnAProjectAtATime) {
    for (const char* file : {"web.yaml", "web.yml"}) {
        EXPECT_EQ(Ask(std::string("/compose-files/") + file, "-X PUT -d 'services: {}'").status, 201);
    }
    Output(
        "rm /bin/docker-compose; printf '#!/bin/sh\\necho >>/tmp/asked; sleep 3\\n' >/bin/docker-compose; "
        "chmod +x /bin/docker-compose");
    Shell(
        "(curl -s --unix-socket /run/qxcontainerd/api.sock -X POST "
        "http://board/api/v1/projects/web.yaml/start >/tmp/first 2>&1; echo done >>/tmp/first) >/dev/null "
        "2>&1 &");
    ASSERT_TRUE(Eventually([] { return std::filesystem::exists("/tmp/asked"); }));
    for (const char* file : {"web.yaml", "web.yml"}) {
        const Answer answer = Post(std::string("/projects/") + file + "/stop");
        EXPECT_EQ(answer.status, 409) << file;
        EXPECT_THAT(answer.Detail(), HasSubstr("Another operation on 'web' is still running."));
    }
    EXPECT_TRUE(Eventually([] { return ReadFile("/tmp/first").ends_with("done\n"); }));
}

TEST_F(ApiOnBoard, SwitchesThePluginOfItsDirectory) {
    WriteFile("/tmp/image", PluginBoard::PluginImage());
    Output(
        std::string("mkdir -p ") + CRP::SYSTEM_PLUGIN_DIR +
        "; for version in 1.0 1.1; do /opt/qx/bin/crp pack --name net --version $version --image /tmp/image "
        "-o /tmp/net-$version.crp; done; mv /tmp/net-1.0.crp " +
        CRP::SYSTEM_PLUGIN_DIR + "/net.crp");
    EXPECT_EQ(Ask("/plugins/net.crp", "-T /tmp/net-1.1.crp").status, 201);
    ASSERT_THAT(Post("/plugins/rescan").Json()["plugins"], SizeIs(2));
    const auto configured = [] { return json::parse(ReadFile(PLUGIN_CONFIG_FILE)).dump(); };

    // The user's goes before the system's, as it is the one that is loaded.
    EXPECT_EQ(Post("/plugins/net.crp/deactivate").status, 204);
    EXPECT_THAT(configured(), HasSubstr("1.1"));
    EXPECT_THAT(configured(), Not(HasSubstr("1.0")));
    EXPECT_EQ(Post("/plugins/net.crp/deactivate?directory=system").status, 204);
    EXPECT_THAT(configured(), HasSubstr("1.0"));
    EXPECT_EQ(Post("/plugins/net.crp/activate?directory=user").status, 204);
    EXPECT_THAT(configured(), Not(HasSubstr("1.1")));
    EXPECT_EQ(Post("/plugins/net.crp/activate?directory=home").status, 400);
}

TEST_F(ApiOnBoard, ListsPublishedPorts) {
    ImportBusybox();
    Output(
        "podman create --name web -p 8080:80 -p 8081:81 -p 127.0.0.1:9000:90/udp localhost/busybox:1 true");
    const json ports = Ask("/containers").Json()["containers"][0]["ports"];
    EXPECT_THAT(ports.get<std::vector<std::string>>(),
                testing::UnorderedElementsAre("127.0.0.1:9000->90/udp", "8080-8081->80-81/tcp"));
}

TEST_F(ApiOnBoard, HoldsNoUploadInMemory) {
    Output("truncate -s 200M /tmp/large");
    const auto peak = [&] {
        return std::stol(Output("sed -n 's/^VmHWM:[^0-9]*\\([0-9]*\\).*/\\1/p' /proc/" +
                                std::to_string(daemon.Pid()) + "/status"));
    };
    const long before = peak();
    EXPECT_EQ(Ask("/plugins/large.crp", "-T /tmp/large").status, 422);
    EXPECT_EQ(Post("/images", "-T /tmp/large").status, 422);
    EXPECT_LT(peak() - before, 32 << 10) << "KiB";
}

TEST_F(ApiOnBoard, KeepsNothingOfClientsThatVanish) {
    Output("truncate -s 50M /tmp/large; mkdir -p " + PLUGINS_DIR);
    const std::string upload =
        "timeout 20 curl -s --limit-rate 1M --unix-socket /run/qxcontainerd/api.sock -T /tmp/large "
        "http://board/api/v1/plugins/large.crp >/dev/null & ";
    const std::string some = "find " + PLUGINS_DIR + " -size +1000k";
    EXPECT_EQ(Output(upload + "for i in $(seq 100); do [ -z \"$(" + some +
                     ")\" ] || break; sleep 0.1; done; " + some + " | wc -l; kill $!"),
              "1");
    EXPECT_TRUE(Eventually([] { return Output("ls -A " + PLUGINS_DIR).empty(); }));
    EXPECT_EQ(Ask("/service").status, 200);
}

/// @return the value of a figure
std::string Metric(const std::string& name) {
    const std::string text = "\n" + Ask("/metrics").text + "\n";
    const size_t at = text.find("\n" + name + " ");
    EXPECT_THAT(text, HasSubstr("\n# TYPE " + name + (name.ends_with("_total") ? " counter\n" : " gauge\n")));
    EXPECT_THAT(text, HasSubstr("\n# HELP " + name + " "));
    return at == std::string::npos
               ? "(none)"
               : text.substr(at + name.size() + 2, text.find('\n', at + 1) - at - name.size() - 2);
}

TEST_F(ApiOnBoard, GivesFigures) {
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    EXPECT_EQ(Metric("qx_podman_up"), "1");
    EXPECT_EQ(Metric("qx_service_enabled"), "1");
    EXPECT_EQ(Metric("qx_podman_restarts_total"), "0");
    EXPECT_EQ(Metric("qx_log_streams"), "0");
    EXPECT_EQ(Metric("qx_log_viewers"), "0");
    EXPECT_GE(std::stol(Metric("process_resident_memory_bytes")), 1 << 20);
    const long messages = std::stol(Metric("qx_messages_total"));

    RunContainer("clock", "while :; do date; sleep 0.2; done");
    Shell(
        "for i in 1 2; do curl -sN --unix-socket /run/qxcontainerd/api.sock -H 'Connection: Upgrade' -H "
        "'Upgrade: websocket' -H 'Sec-WebSocket-Version: 13' -H 'Sec-WebSocket-Key: "
        "MDEyMzQ1Njc4OWFiY2RlZg==' "
        "http://board/api/v1/containers/clock/logs >/dev/null 2>&1 & done");
    EXPECT_TRUE(Eventually([] { return Metric("qx_log_viewers") == "2"; }));
    EXPECT_EQ(Metric("qx_log_streams"), "1");

    Output("pkill -KILL -f '[p]odman system service'");
    EXPECT_TRUE(Eventually([] { return Metric("qx_podman_restarts_total") == "1"; }));
    ASSERT_TRUE(Becomes("running"));
    EXPECT_EQ(Post("/service/disable").status, 200);
    EXPECT_EQ(Post("/service/stop").status, 200);
    EXPECT_EQ(Metric("qx_podman_up"), "0");
    EXPECT_EQ(Metric("qx_service_enabled"), "0");
    EXPECT_GT(std::stol(Metric("qx_messages_total")), messages);
    Shell("pkill curl");
}

TEST_F(ApiOnBoard, WantsATokenOnTcp) {
    const std::string base = "http://127.0.0.1:8089/api/v1";
    EXPECT_EQ(Curl(base + "/service").status, 401);
    const std::string look =
        Post("/tokens", "-d '{\"name\":\"l\",\"right\":\"look\"}'").Json()["token"].get<std::string>();
    const std::string act =
        Post("/tokens", "-d '{\"name\":\"a\",\"right\":\"act\"}'").Json()["token"].get<std::string>();
    EXPECT_EQ(Curl("-H 'Authorization: Bearer " + look + "' " + base + "/service").status, 200);
    EXPECT_EQ(Curl("-X POST -H 'Authorization: Bearer " + look + "' " + base + "/service/enable").status,
              403);
    EXPECT_EQ(Curl("-X POST -H 'Authorization: Bearer " + act + "' " + base + "/service/enable").status, 200);
    EXPECT_EQ(Curl("-H 'Authorization: Bearer " + act + "' " + base + "/tokens").status, 403);
    EXPECT_EQ(Curl("-H 'Authorization: Bearer wrong' " + base + "/service").status, 401);
    EXPECT_THAT(ReadFile("/etc/qxcontainerd/tokens.json"), Not(HasSubstr(act)));
    EXPECT_EQ(Output("stat -c %a /etc/qxcontainerd/tokens.json"), "600");

    const std::string open = "-X POST -d '{\"token\":\"" + act + "\"}' -c /tmp/jar " + base + "/session";
    EXPECT_EQ(Curl(open).status, 200);
    EXPECT_EQ(Curl("-b /tmp/jar " + base + "/session").Json()["right"], "act");
    EXPECT_EQ(Ask("/tokens/a", "-X DELETE").status, 204);
    EXPECT_EQ(Curl("-b /tmp/jar " + base + "/session").status, 401);
}

TEST_F(ApiOnBoard, AnswersOnlyItsOwnPagesAndNames) {
    const std::string act =
        Post("/tokens", "-d '{\"name\":\"a\",\"right\":\"act\"}'").Json()["token"].get<std::string>();
    const std::string base = "-H 'Authorization: Bearer " + act + "' http://127.0.0.1:8089/api/v1/service";
    EXPECT_EQ(Curl("-H 'Origin: http://127.0.0.1:8089' " + base).status, 200);
    EXPECT_EQ(Curl("-H 'Origin: http://evil.example' " + base).status, 403);
    EXPECT_EQ(Curl("-H 'Origin: null' " + base).status, 403);
    EXPECT_EQ(Curl("-H 'Host: evil.example' " + base).status, 421);
    EXPECT_EQ(Curl("-H 'Host: localhost:8089' " + base).status, 200);
    EXPECT_EQ(Curl("-H 'X: " + std::string(9000, 'a') + "' " + base).status, 431);

    const std::string socket =
        "-H 'Connection: Upgrade' -H 'Upgrade: websocket' -H 'Sec-WebSocket-Version: 13' -H "
        "'Sec-WebSocket-Key: MDEyMzQ1Njc4OWFiY2RlZg==' -H 'Authorization: Bearer " +
        act + "' http://127.0.0.1:8089/api/v1/messages";
    EXPECT_EQ(Curl("-m 3 -H 'Origin: http://127.0.0.1:8089' " + socket).status, 101);
    EXPECT_EQ(Curl("-H 'Origin: http://evil.example' " + socket).status, 403);
    EXPECT_EQ(Curl("-H 'Host: evil.example' " + socket).status, 421);
}

TEST_F(ApiOnBoard, StartsPodmanAgainWhenItIsKilled) {
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Eventually([] { return !Ask("/service").Json()["restarts"]["history"].empty(); }));
    EXPECT_TRUE(Becomes("running"));
    const json restarts = Ask("/service").Json()["restarts"];
    EXPECT_THAT(restarts["history"][0]["cause"].get<std::string>(), HasSubstr("Podman is gone"));
    EXPECT_EQ(restarts["inARow"], 1);
}

/// By whose rules nothing is started again.
class NeverOnBoard : public ApiOnBoard {
protected:
    NeverOnBoard() : ApiOnBoard({"--restart", "never"}) {}
};

TEST_F(NeverOnBoard, PodmanIsNotStartedAgain) {
    Output("pkill -TERM -f '[p]odman system service'");
    EXPECT_TRUE(Becomes("failed"));
    EXPECT_THAT(Ask("/service").Json()["problem"].get<std::string>(),
                HasSubstr("By the rules it is not started again"));
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
}

/// A start begins with the end of what was started before.
TEST_F(NeverOnBoard, AStartThatIsRefusedEndsNoContainer) {
    RunContainer("steady", "trap exit TERM; while true; do sleep 0.2; done");
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Becomes("failed"));
    EXPECT_EQ(Post("/service/disable").status, 200);

    const Answer answer = Post("/service/start");

    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(answer.Detail(), "The container service is disabled; enable it, then start it.");
    EXPECT_EQ(Output("podman inspect -f '{{.State.Running}}' steady 2>/dev/null"), "true");
    EXPECT_EQ(Post("/service/enable").status, 200);
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
}

TEST_F(NeverOnBoard, ALossEndsADisabledServiceForGood) {
    RunContainer("steady", "trap exit TERM; while true; do sleep 0.2; done");
    EXPECT_EQ(Post("/service/disable").status, 200);
    Output("pkill -KILL -f '[p]odman system service'");
    ASSERT_TRUE(Becomes("failed"));
    EXPECT_EQ(Output("podman inspect -f '{{.State.Running}}' steady 2>/dev/null"), "false");
    EXPECT_EQ(Ask("/service").Json()["problem"],
              "The container service is disabled; enable it, then start it.");
    EXPECT_EQ(Post("/service/enable").status, 200);
    EXPECT_EQ(Post("/service/start").status, 200);
}

/// With a short deadline.
class HangingOnBoard : public ApiOnBoard {
protected:
    HangingOnBoard() : ApiOnBoard({"--liveness-deadline", "1"}) {}

    static void ExpectRestart() {
        ASSERT_TRUE(Eventually([] { return !Ask("/service").Json()["restarts"]["history"].empty(); }));
        EXPECT_TRUE(Becomes("running"));
        EXPECT_THAT(Ask("/service").Json()["restarts"]["history"][0]["cause"].get<std::string>(),
                    HasSubstr("has not answered within"));
        EXPECT_THAT(Processes("podman system service"), SizeIs(1)) << "the one that hung has gone";
    }
};

TEST_F(HangingOnBoard, PodmanIsKilledAndStartedAgain) {
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    Output("pkill -STOP -f '[p]odman system service'");
    ExpectRestart();
}

/// The library has not begun to watch it then, and does not wait for it.
TEST_F(HangingOnBoard, PodmanIsKilledAlsoWhenItIsJustStarting) {
    Output("pkill -STOP -f '[p]odman system service'");
    ExpectRestart();
}

TEST_F(ApiOnBoard, ListensToOthersOnlyWithCertificateAndToken) {
    const Outcome refused = Shell("/opt/qx/bin/qxcontainerd --socket /run/other.sock --listen 0.0.0.0:9000");
    EXPECT_EQ(refused.status, 3);
    EXPECT_THAT(refused.output, HasSubstr("Give a certificate, a key and at least one token"));
    const Outcome taken = Shell("/opt/qx/bin/qxcontainerd --listen none");
    EXPECT_EQ(taken.status, 3);
    EXPECT_THAT(taken.output, HasSubstr("is the daemon running already?"));
}

TEST_F(ApiOnBoard, EndsInOrderAndLeavesNothing) {
    EXPECT_EQ(daemon.Stop(), 0);
    EXPECT_NE(Shell("test -e /run/qxcontainerd/api.sock").status, 0);
    EXPECT_THAT(Processes("podman"), IsEmpty());
    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
}

TEST(ApiWithTls, IsSpokenWithACertificate) {
    Output("cp /opt/qx/share/certs/server.* /run");
    Daemon daemon({"--enable", "--certificate", "/run/server.crt", "--key", "/run/server.key"});
    ASSERT_TRUE(Becomes("running"));
    const std::string token =
        Post("/tokens", "-d '{\"name\":\"a\",\"right\":\"act\"}'").Json()["token"].get<std::string>();
    const std::string words = "--cacert /opt/qx/share/certs/ca.crt -H 'Authorization: Bearer " + token + "' ";
    EXPECT_EQ(Curl(words + "https://localhost:8089/api/v1/service").status, 200);
    EXPECT_THAT(Ask("/check").text, HasSubstr("/run/server.crt ends in"));
    Output("openssl genrsa -out /run/server.key 2>/dev/null");
    EXPECT_THAT(Ask("/check").text, HasSubstr("/run/server.key is not its key: the pair before is used"));
    EXPECT_EQ(Curl(words + "https://localhost:8089/api/v1/service").status, 200);
    EXPECT_EQ(Curl(words + "https://localhost:8089/api/v1/openapi.yaml").text, Ask("/openapi.yaml").text);
    EXPECT_NE(Curl("http://localhost:8089/api/v1/service").status, 200);
}

TEST(ApiWithoutContainers, SaysWhyAndStays) {
    Daemon daemon({"--listen", "none"});
    ASSERT_TRUE(Becomes("failed"));
    EXPECT_THAT(Ask("/service").Json()["problem"].get<std::string>(), HasSubstr("disabled"));
    const Answer start = Post("/service/start");
    EXPECT_EQ(start.status, 409);
    EXPECT_THAT(start.Detail(), HasSubstr("enable it"));
    EXPECT_EQ(Ask("/check").Json()["verdict"], "error");
    EXPECT_EQ(Post("/service/enable").status, 200);
    EXPECT_EQ(State(), "stopped");
    EXPECT_THAT(Ask("/service").Json()["problem"].get<std::string>(), HasSubstr("can be started"));
    EXPECT_EQ(Post("/service/start").status, 200);
    EXPECT_EQ(State(), "running");
    EXPECT_EQ(daemon.Stop(), 0);
}

}  // namespace
