#include "BoardTest.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <csignal>
#include <cstring>

using namespace OnBoard;
using testing::HasSubstr;
using testing::IsEmpty;

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

    EXPECT_TRUE(manager.Hears("READY=1"));
    EXPECT_TRUE(PodmanAnswers());
    EXPECT_EQ(Output("curl -sf -m 10 --retry 20 --retry-connrefused --retry-delay 1 "
                     "http://127.0.0.1:8080/v5.8.1/libpod/_ping"),
              "OK");
    daemon.Signal(SIGTERM);
    EXPECT_TRUE(manager.Hears("STOPPING=1"));
    EXPECT_EQ(daemon.Wait(), 0);
    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
    EXPECT_THAT(Processes("podman"), IsEmpty());
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

}  // namespace
