// What a host finds that comes after one that was killed, at every entry and exit of a system call.

#include "KilledHost.h"

#include "QxCContainer.h"
#include "tests/crp/LoopDevices.h"
#include "tests/crp/PluginMaker.h"
#include "tests/unit/Board.h"
#include "tests/unit/FakePodman.h"
#include "tests/unit/ScriptedServer.h"

#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <map>

using QxNContainer::QxCContainer;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
namespace fs = std::filesystem;

// Nobody has to wait here for the disks of the whole machine.
extern "C" void sync() {}

namespace {

constexpr unsigned int MostStops = 10000;

QxCContainer& Service() { return QxCContainer::GetInstance(); }

/// Ends what killed hosts have left running.
void EndOrphans() {
    for (std::vector<int> orphans; !(orphans = Sandbox::Children()).empty();) {
        for (const int orphan : orphans) {
            kill(orphan, SIGKILL);
            waitpid(orphan, nullptr, 0);
        }
    }
}

class KilledHostTest : public testing::Test {
protected:
    KilledHostTest() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~KilledHostTest() override { EndOrphans(); }
};

TEST_F(KilledHostTest, ASettingsFileIsTheOldOneTheNewOneOrReportedAsBroken) {
    std::map<std::string, int> found;
    for (unsigned int stop = 1; stop < MostStops; ++stop) {
        Board::WriteSettings(R"({"enabled": true, "tcp_port": 8080, "cores_num": 3})");
        const bool killed = KilledHost::Run([] { Service(); },
                                            [] {
                                                Service().SetContainerServiceUserSettings({9090, 2});
                                            },
                                            stop);

        const QxNJson::json left = QxNJson::json::parse(Board::Settings());
        const std::string what = left.is_invalid() ? "broken" : left["tcp_port"] == 8080 ? "old" : "new";
        ++found[what];
        const int code = KilledHost::RunToItsEnd([&] {
            const QxCCTESettings::QxSUserSettings settings = Service().GetContainerServiceUserSettings();
            const std::string warning =
                "[WARNING] Quolex Container Service: QxCCTESettings::Read: failed to parse '" +
                Board::SETTINGS_FILE + "', using defaults";
            if (what == "broken") {
                EXPECT_THAT(Recording::Logs(), Contains(warning)) << stop;
                EXPECT_EQ(settings.tcpPort, 0U) << stop;
                EXPECT_FALSE(Service().IsContainerServiceEnabled(false)) << stop;
            } else {
                EXPECT_THAT(Recording::Logs(), Not(Contains(warning))) << stop;
                EXPECT_EQ(settings.tcpPort, what == "old" ? 8080U : 9090U) << stop;
                EXPECT_TRUE(Service().IsContainerServiceEnabled(false)) << stop;
            }
            EXPECT_FALSE(QxNJson::json::parse(Board::Settings()).is_invalid()) << stop;
            return testing::Test::HasFailure() ? 1 : 0;
        });
        ASSERT_EQ(code, 0) << "killed at stop " << stop << ", file " << what;
        if (!killed) {
            break;
        }
    }
    EXPECT_EQ(found.size(), 3U);
    for (const auto& [what, times] : found) {
        printf("%d times the file was %s\n", times, what.c_str());
    }
}

TEST_F(KilledHostTest, APluginConfigurationIsTheOldOneTheNewOneOrReportedAsBroken) {
    PluginMaker::Write(Board::PLUGINS_DIR + "/network.crp", PluginMaker::Trailer("network", "1.0.0"));
    const std::string error =
        "[ERROR] Quolex Container Runtime: Failed to parse config file '" + Board::PLUGIN_CONFIG_FILE + "'";
    std::map<std::string, int> found;
    std::unique_ptr<CRP::QxCRPHandler> handler;
    unsigned int stop = 0;
    for (bool killed = true; killed && stop < MostStops;) {
        ++stop;
        Sandbox::WriteFile(Board::PLUGIN_CONFIG_FILE, R"({"deactivated_plugins": []})");
        killed = KilledHost::Run(
            [&] {
                handler = std::make_unique<CRP::QxCRPHandler>(Board::PLUGINS_DIR, Board::PLUGIN_CONFIG_FILE);
                handler->scanPluginsDir();
            },
            [&] { handler->addPluginToConfig("network", "1.0.0"); }, stop);

        const QxNJson::json left = QxNJson::json::parse(Sandbox::ReadFile(Board::PLUGIN_CONFIG_FILE));
        const std::string what = left.is_invalid()                     ? "broken"
                                 : left["deactivated_plugins"].empty() ? "old"
                                                                       : "new";
        ++found[what];
        const int code = KilledHost::RunToItsEnd([&] {
            CRP::QxCRPHandler next(Board::PLUGINS_DIR, Board::PLUGIN_CONFIG_FILE);
            next.scanPluginsDir();
            EXPECT_EQ(testing::Value(Recording::Logs(), Contains(error)), what == "broken") << stop;
            EXPECT_EQ(next.listPlugins()["plugins"][0]["isDeactivated"], what == "new") << stop;
            return testing::Test::HasFailure() ? 1 : 0;
        });
        ASSERT_EQ(code, 0) << "killed at stop " << stop << ", file " << what;
    }
    EXPECT_EQ(found.size(), 3U);
}

TEST_F(KilledHostTest, APluginIsLoadedByTheNextStart) {
    Board::MountUserStorage();
    Board::WriteSettings(R"({"enabled": true})");
    fs::create_directories("/userstorage1/container_rte");
    Sandbox::WriteFile("/image/init.sh", "echo init >> /initialised\n");
    const std::string image = PluginMaker::ImageOf("/image");
    CrpPluginHeader trailer = PluginMaker::Trailer("network", "1.0.0");
    PluginMaker::SetText(trailer.initCommand, "init.sh");
    trailer.imageSize = image.size();
    const auto load = [](CRP::QxCRPHandler& handler) { handler.loadPlugins(); };
    int unmounted = 0;
    int runs = 0;
    for (bool killed = true; killed && static_cast<unsigned int>(runs) < MostStops;) {
        ++runs;
        const LoopDevices devices;
        fs::remove_all(Board::PLUGINS_DIR);
        fs::create_directory_symlink(devices.Directory(), Board::PLUGINS_DIR);
        PluginMaker::Write(devices.Directory() + "/network.crp", trailer, image);
        fs::remove("/initialised");

        std::unique_ptr<CRP::QxCRPHandler> handler;
        killed = KilledHost::Run(
            [&] {
                handler = std::make_unique<CRP::QxCRPHandler>(Board::PLUGINS_DIR, Board::PLUGIN_CONFIG_FILE);
            },
            [&] { load(*handler); }, static_cast<unsigned int>(runs));
        EndOrphans();

        const size_t mounts = LoopDevices::Mounts().size();
        const size_t bound = devices.Bound().size();
        // A device that is bound and not mounted is nobody's; it must be the only one.
        ASSERT_LE(bound, mounts + 1) << runs;
        unmounted += bound > mounts ? 1 : 0;

        fs::remove("/initialised");
        const int code = KilledHost::RunToItsEnd([&] {
            CRP::QxCRPHandler next(Board::PLUGINS_DIR, Board::PLUGIN_CONFIG_FILE);
            next.loadPlugins();
            EXPECT_THAT(Recording::Logs(), Not(Contains(HasSubstr("[ERROR]")))) << runs;
            EXPECT_EQ(next.listPlugins()["plugins"][0]["isLoaded"], true) << runs;
            EXPECT_EQ(Sandbox::ReadFile("/initialised"), "init\n") << runs;
            EXPECT_THAT(LoopDevices::Mounts(), SizeIs(mounts + 1)) << runs;
            EXPECT_THAT(devices.Bound(), SizeIs(bound + 1)) << runs;
            return testing::Test::HasFailure() ? 1 : 0;
        });
        ASSERT_EQ(code, 0) << "killed at stop " << runs;
    }
    printf("%d stops; %d left a device that was not mounted yet\n", runs, unmounted);
    EXPECT_GT(runs, 20);
}

TEST_F(KilledHostTest, ADiskInWriteThroughModeIsPutBackByTheNextStop) {
    Board::ProvideContainerSystem();
    FakePodman{}.Install();
    Sandbox::WriteFile("/upload", std::string(100000, 'u'));
    // In a process of its own, so that only the host's own calls count.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t podman = fork();
    if (podman == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const ScriptedServer server(Board::PODMAN_SOCKET, ScriptedServer::Answer(200, "{}"));
        close(ready[0]);
        close(ready[1]);
        for (;;) {
            pause();
        }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 0);
    close(ready[0]);

    std::map<std::string, int> found;
    unsigned int stop = 0;
    for (bool killed = true; killed && stop < MostStops;) {
        ++stop;
        Sandbox::WriteFile(Board::WriteCache, "write back");
        killed = KilledHost::Run(
            [] { Service(); },
            [] { Service().ExecutePodmanRequest("/images/load", QxCCurlHandler::Post, {}, "/upload", true); },
            stop);
        ++found[Sandbox::ReadFile(Board::WriteCache)];
        const int code = KilledHost::RunToItsEnd([] {
            EXPECT_TRUE(Service().init());
            EXPECT_EQ(
                Service().ExecutePodmanRequest("/images/load", QxCCurlHandler::Get, {}, {}, false).httpCode,
                200);
            EXPECT_TRUE(Service().Stop());
            EXPECT_EQ(Sandbox::ReadFile(Board::WriteCache), "write back");
            EXPECT_THAT(Recording::Logs(), Not(Contains(HasSubstr("[ERROR]"))));
            return testing::Test::HasFailure() ? 1 : 0;
        });
        ASSERT_EQ(code, 0) << "killed at stop " << stop;
    }
    EXPECT_GT(found["write through"], 0);
    EXPECT_GT(found["write back"], 0);
    for (const auto& [mode, times] : found) {
        printf("%d times the disk was in mode '%s'\n", times, mode.c_str());
    }
    kill(podman, SIGKILL);
    waitpid(podman, nullptr, 0);
}

/// As Podman's service does it: what has the name of its socket goes before it listens there. It answers every
/// request with its process id.
constexpr const char* ListenAsPodman = R"(exec python3 -c '
import os, socket
path = "/run/podman/podman.sock"
try:
    os.unlink(path)
except FileNotFoundError:
    pass
os.umask(0o177)
listener = socket.socket(socket.AF_UNIX)
listener.bind(path)
listener.listen()
body = str(os.getpid()).encode()
while True:
    client = listener.accept()[0]
    client.recv(65536)
    client.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n%s" % (len(body), body))
    client.close()
')";

/// Binds a Unix socket and ends without taking its name away, as a service that was killed.
void LeaveSocket(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    fs::remove(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int left = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(left, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(left);
}

/// @return the process that answers on Podman's socket; 0 when none does
int AnsweringService() {
    int service = 0;
    Sandbox::Eventually([&] {
        const PodmanResponse response =
            Service().ExecutePodmanRequest("/info", QxCCurlHandler::Get, {}, {}, false);
        service = response.httpCode == 200 ? std::stoi(response.body) : 0;
        return service != 0;
    });
    return service;
}

TEST_F(KilledHostTest, ServicesOfAKilledHostDoNotHinderTheNextStart) {
    Board::ProvideContainerSystem(R"({"enabled": true, "tcp_port": 8080})");
    FakePodman{.unixService = ListenAsPodman}.Install();
    LeaveSocket(Board::PODMAN_SOCKET);
    ASSERT_TRUE(fs::is_socket(Board::PODMAN_SOCKET));

    EXPECT_EQ(KilledHost::RunToItsEnd([] {
                  EXPECT_TRUE(Service().init() && Service().Start() && FakePodman::IsWatched());
                  EXPECT_THAT(Sandbox::Children(), Contains(AnsweringService()));
                  return testing::Test::HasFailure() ? 1 : raise(SIGKILL);
              }),
              -1);
    const std::vector<int> orphans = Sandbox::Children();
    EXPECT_THAT(orphans, SizeIs(2));
    EXPECT_THAT(orphans, Contains(AnsweringService()));
    EXPECT_EQ(KilledHost::RunToItsEnd([] {
                  EXPECT_TRUE(Service().init() && Service().Start() && FakePodman::IsWatched());
                  EXPECT_THAT(Sandbox::Children(), SizeIs(2));
                  // The killed host's service goes on listening where nobody finds it.
                  EXPECT_TRUE(Sandbox::Eventually(
                      [] { return testing::Value(Sandbox::Children(), Contains(AnsweringService())); }));
                  EXPECT_TRUE(Service().Stop());
                  EXPECT_THAT(Sandbox::Children(), IsEmpty());
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
    // Nobody knows them any more; whoever runs the host ends them with it.
    EXPECT_EQ(Sandbox::Children(), orphans);
    // What the ended service has left there is as little in the way as at the beginning.
    EXPECT_TRUE(fs::is_socket(Board::PODMAN_SOCKET));
    EXPECT_EQ(KilledHost::RunToItsEnd([] {
                  EXPECT_TRUE(Service().init() && Service().Start() && FakePodman::IsWatched());
                  EXPECT_THAT(Sandbox::Children(), Contains(AnsweringService()));
                  EXPECT_TRUE(Service().Stop());
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

}  // namespace
