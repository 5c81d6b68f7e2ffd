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

    /// @return the next notification; empty when none came in a minute
    std::string Next() {
        char text[1024];
        const ssize_t length = recv(_socket, text, sizeof(text), 0);
        return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
    }

    static constexpr const char* Path = "/run/notify";

private:
    int _socket;
};

TEST(Daemon, TakesTheServiceThroughItsLifeAndTellsTheServiceManager) {
    NotifySocket manager;
    Daemon daemon({"--enable", "--cores", "1", "--port", "8080"},
                  std::string("NOTIFY_SOCKET=") + NotifySocket::Path);

    EXPECT_THAT(manager.Next(), HasSubstr("READY=1"));
    EXPECT_TRUE(PodmanAnswers());
    EXPECT_EQ(Output("curl -sf -m 10 --retry 20 --retry-connrefused --retry-delay 1 "
                     "http://127.0.0.1:8080/v5.8.1/libpod/_ping"),
              "OK");
    daemon.Signal(SIGTERM);
    EXPECT_THAT(manager.Next(), HasSubstr("STOPPING=1"));
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

TEST(Daemon, SaysWhyTheBoardCannotRunContainers) {
    const Outcome disabled = Shell("/opt/qx/bin/qxcontainerd");
    EXPECT_EQ(disabled.status, 3);
    EXPECT_THAT(disabled.output, HasSubstr("disabled; start with --enable"));

    const Outcome cores = Shell("/opt/qx/bin/qxcontainerd --enable --cores 500");
    EXPECT_EQ(cores.status, 3);
    EXPECT_THAT(cores.output, HasSubstr("log file"));

    const Outcome storage = Shell("umount /userstorage1; /opt/qx/bin/qxcontainerd --enable");
    EXPECT_EQ(storage.status, 3);
    EXPECT_THAT(storage.output, HasSubstr("requires a mounted userstorage1 device"));
}

TEST(Daemon, RefusesWrongOptions) {
    EXPECT_EQ(Shell("/opt/qx/bin/qxcontainerd --port many").status, 2);
    EXPECT_EQ(Shell("/opt/qx/bin/qxcontainerd --nonsense").status, 2);
    for (const char* port : {"80", "111", "65536", "-1"}) {
        EXPECT_EQ(Shell(std::string("/opt/qx/bin/qxcontainerd --port ") + port).status, 2) << port;
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
    EXPECT_EQ(Shell("/opt/qx/bin/qxcontainerd --enable").status, 6);
}

}  // namespace
