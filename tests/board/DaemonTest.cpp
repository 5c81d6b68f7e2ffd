#include "BoardTest.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <csignal>
#include <cstring>

using namespace OnBoard;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

/// What a service manager listens on.
class NotifySocket {
public:
    NotifySocket() : _socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, Path);
        unlink(Path);
        EXPECT_EQ(bind(_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        timeval limit{60, 0};
        setsockopt(_socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    ~NotifySocket() { close(_socket); }

    /// @return whether a notification with that text comes within a minute
    bool Hears(const std::string& what) {
        char text[1024];
        for (ssize_t length; (length = recv(_socket, text, sizeof(text), 0)) > 0;) {
            if (std::string(text, static_cast<size_t>(length)).find(what) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    static constexpr const char* Path = "/run/notify";

private:
    int _socket;
};

TEST(Daemon, TakesTheServiceThroughItsLifeAndTellsTheServiceManager) {
    NotifySocket manager;
    Daemon daemon({"--enable", "--cores", "1", "--tcp-port", "8080"},
                  std::string("NOTIFY_SOCKET=") + NotifySocket::Path);

    EXPECT_TRUE(manager.Hears("EXTEND_TIMEOUT_USEC=60000000"));
    EXPECT_TRUE(manager.Hears("READY=1"));
    EXPECT_TRUE(PodmanAnswers());
    EXPECT_EQ(Output("curl -sf -m 10 --retry 20 --retry-connrefused --retry-delay 1 "
                     "http://127.0.0.1:8080/v5.8.1/libpod/_ping"),
              "OK");
    daemon.Signal(SIGTERM);
    EXPECT_TRUE(manager.Hears("STOPPING=1"));
    EXPECT_TRUE(manager.Hears("EXTEND_TIMEOUT_USEC=60000000"));
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
    EXPECT_THAT(Processes("podman"), IsEmpty());
}

/// Not before: what systemd starts after it counts on containers.
TEST(Daemon, IsReadyWhenTheFirstStartHasComeToSomething) {
    NotifySocket manager;
    WriteFile("/bin/podman",
              "#!/bin/sh\n[ \"$1\" = system ] && sleep 2 && : >/tmp/began\n"
              "exec /mnt/containers_tools/bin/podman \"$@\"\n");
    Output("chmod +x /bin/podman");
    const Daemon daemon({"--enable"}, std::string("NOTIFY_SOCKET=") + NotifySocket::Path);
    ASSERT_TRUE(manager.Hears("READY=1"));
    EXPECT_TRUE(std::filesystem::exists("/tmp/began"));
    EXPECT_EQ(Output("curl -sf -m 10 --unix-socket /run/podman/podman.sock http://d/v5.8.1/libpod/_ping"),
              "OK");
}

TEST(Daemon, StopsOnInterruptAsWell) {
    Daemon daemon({"--enable"});
    ASSERT_TRUE(PodmanAnswers());

    daemon.Signal(SIGINT);

    EXPECT_EQ(daemon.Wait(), 0);
}

TEST(Daemon, HonoursAStopThatComesDuringTheStart) {
    Daemon daemon({"--enable"});
    ASSERT_TRUE(Logged("Container runtime initializing"));

    EXPECT_EQ(daemon.Stop(), 0);

    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
    EXPECT_THAT(Processes("podman"), IsEmpty());
}

/// @return what the daemon says about the service's failure before it is ended
std::string FailureOf(const std::string& before, const std::string& options) {
    return Shell(before + "timeout --preserve-status -s TERM 3 /opt/qx/bin/qxcontainerd " + options).output;
}

/// A daemon that is killed without a chance to stop.
void KillADaemon() {
    Daemon daemon({"--enable"});
    ASSERT_TRUE(PodmanAnswers());
    ASSERT_TRUE(Logged("Spawned Podman correctly"));
    daemon.Signal(SIGKILL);
    daemon.Wait();
}

/// What a protected request and a plugin that is being loaded would leave.
std::string LeaveDiskAndLoopDevice() {
    Output("printf 'write through' > /sys/block/sda/queue/write_cache");
    Output("mkdir -p " + PLUGINS_DIR + " && truncate -s 8192 " + PLUGINS_DIR + "/.left");
    return Output("losetup --find --show " + PLUGINS_DIR + "/.left");
}

TEST(Daemon, ClearsAwayWhatAKilledOneHasLeft) {
    KillADaemon();
    const std::string device = LeaveDiskAndLoopDevice();
    const auto left = Processes("podman system service");
    ASSERT_EQ(left.size(), 1u);

    Daemon daemon({"--enable"});
    ASSERT_TRUE(Logged(
        "[WARNING] Quolex Container Host: Podman services of a host that did not stop were still running: 1; "
        "they have been ended."));
    EXPECT_TRUE(Logged(
        "[WARNING] Quolex Container Host: The disk of the user storage was in write-through mode; it is in "
        "write-back mode again."));
    EXPECT_TRUE(Logged("[WARNING] Quolex Container Host: The loop device " + device +
                       " held the plugin file " + PLUGINS_DIR + "/.left without a mount; it is free again."));
    EXPECT_TRUE(PodmanAnswers());

    EXPECT_THAT(Processes("podman system service"), SizeIs(1));
    EXPECT_NE(Processes("podman system service"), left);
    EXPECT_EQ(Output("cat /sys/block/sda/queue/write_cache"), "write back");
    EXPECT_THAT(Output("losetup --list --noheadings --output BACK-FILE"), Not(HasSubstr(".left")));
    EXPECT_EQ(daemon.Stop(), 0);
}

TEST(Daemon, EndsAServiceOfAKilledOneThatHangs) {
    KillADaemon();
    const auto left = Processes("podman system service");
    ASSERT_EQ(left.size(), 1u);
    Output("kill -STOP $(pgrep -f '[p]odman system service')");

    const auto begin = std::chrono::steady_clock::now();
    Daemon daemon({"--enable"});

    EXPECT_TRUE(Logged("Podman services of a host that did not stop were still running: 1"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10))
        << "the time that it had to end";
    EXPECT_TRUE(PodmanAnswers());
    EXPECT_THAT(Processes("podman system service"), SizeIs(1));
    EXPECT_EQ(daemon.Stop(), 0);
}

TEST(Daemon, TouchesNothingOfTheBoardAfterOneThatStopped) {
    {
        Daemon daemon({"--enable"});
        ASSERT_TRUE(PodmanAnswers());
        EXPECT_EQ(daemon.Stop(), 0);
    }
    const std::string device = LeaveDiskAndLoopDevice();

    Daemon daemon({"--enable"});
    ASSERT_TRUE(PodmanAnswers());

    EXPECT_EQ(Output("cat /sys/block/sda/queue/write_cache"), "write through");
    EXPECT_THAT(Output("losetup --list --noheadings --output BACK-FILE"), HasSubstr(".left"));
    EXPECT_THAT(LogLines(), Not(Contains(HasSubstr("Quolex Container Host"))));
    Output("losetup --detach " + device);
    EXPECT_EQ(daemon.Stop(), 0);
}

TEST(Daemon, SaysWhyTheBoardCannotRunContainers) {
    EXPECT_THAT(FailureOf("", ""), HasSubstr("failed: The container service is disabled"));
    EXPECT_THAT(FailureOf("", "--enable --cores 500"), HasSubstr("log file"));
    EXPECT_THAT(FailureOf("umount /userstorage1; ", "--enable"),
                HasSubstr("requires a mounted userstorage1 device"));
}

TEST(Daemon, FeedsTheWatchdog) {
    NotifySocket manager;
    setenv("WATCHDOG_USEC", "500000", 1);
    Daemon daemon({"--enable"}, std::string("NOTIFY_SOCKET=") + NotifySocket::Path);

    EXPECT_TRUE(manager.Hears("WATCHDOG=1"));
    EXPECT_TRUE(manager.Hears("WATCHDOG=1"));
    unsetenv("WATCHDOG_USEC");
}

TEST(Daemon, RefusesWrongOptions) {
    EXPECT_EQ(Shell("/opt/qx/bin/qxcontainerd --tcp-port many").status, 2);
    EXPECT_EQ(Shell("/opt/qx/bin/qxcontainerd --nonsense").status, 2);
    for (const char* port : {"80", "111", "65536", "-1"}) {
        EXPECT_EQ(Shell(std::string("/opt/qx/bin/qxcontainerd --tcp-port ") + port).status, 2) << port;
    }
    const Outcome help = Shell("/opt/qx/bin/qxcontainerd --help");
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, HasSubstr("Exit codes:"));
}

TEST(Daemon, ReportsSettingsThatCannotBeWritten) {
    Output("mkdir -p /mnt/cfdrive/containers/container_rte_settings.json");
    const Outcome outcome = Shell("/opt/qx/bin/qxcontainerd --enable");
    EXPECT_EQ(outcome.status, 5);
    EXPECT_THAT(outcome.output, HasSubstr("settings cannot be written"));
}

TEST(Daemon, ReportsErrorsOfTheBoardsFileSystem) {
    Output("mkdir -p /mnt/containers_tools");  // taken as a mounted image, which has no plugins to link
    EXPECT_THAT(FailureOf("", "--enable"), HasSubstr("The board's file system fails"));
}

TEST(Daemon, ReportsASocketDirectoryThatCannotBeMade) {
    WriteFile("/run/podman", "a file in the way");
    EXPECT_THAT(FailureOf("", "--enable"), HasSubstr("The board's file system fails"));
}

}  // namespace
