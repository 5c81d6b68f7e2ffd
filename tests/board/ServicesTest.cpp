#include "BoardTest.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

using namespace OnBoard;
using QxNContainer::QxCContainer;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

namespace {

QxCContainer& InitialisedService(const std::string& settings = R"({"enabled": true})",
                                 const std::string& logLevel = "INFO") {
    ConfigurePlatform("[ContainerRuntime]\nLogLevel=" + logLevel + "\n");
    WriteSettings(settings);
    QxCContainer& service = QxCContainer::GetInstance();
    EXPECT_TRUE(service.init());
    return service;
}

bool IsWatched() { return Logged("Spawned Podman correctly"); }

/// Puts the certificates of the service in place; the client's stay beside the tests.
void InstallCertificates() {
    std::filesystem::create_directories(CONTAINER_CERTS_DIR);
    for (const char* name : {"ca.crt", "server.crt", "server.key"}) {
        std::filesystem::copy_file(std::string("/opt/qx/share/certs/") + name,
                                   CONTAINER_CERTS_DIR + "/" + name);
    }
}

constexpr const char* ClientCertificate =
    "--cacert /opt/qx/share/certs/ca.crt --cert /opt/qx/share/certs/client.crt --key "
    "/opt/qx/share/certs/client.key";

/// Keeps a TCP port taken.
class TakenPort {
public:
    TakenPort() : _socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(_socket, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(_socket, 1), 0);
        getsockname(_socket, reinterpret_cast<sockaddr*>(&address), &length);
        _port = ntohs(address.sin_port);
    }
    TakenPort(const TakenPort&) = delete;
    TakenPort& operator=(const TakenPort&) = delete;
    ~TakenPort() { close(_socket); }
    int Port() const { return _port; }

private:
    int _socket;
    int _port;
};

TEST(Services, AnswerOnTheUnixSocketUntilStop) {
    QxCContainer& service = InitialisedService();
    const auto descriptors = OpenDescriptors();

    ASSERT_TRUE(service.Start());
    EXPECT_THAT(AskPodman("/libpod/info"), HasSubstr("\"graphRoot\":\"/var/lib/containers/storage\""));
    ASSERT_TRUE(IsWatched());
    EXPECT_EQ(StateInFile(), ContainerServiceState::Running);
    EXPECT_TRUE(service.Stop());

    EXPECT_EQ(StateInFile(), ContainerServiceState::Stopped);
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_THAT(LogLines(), Contains("[INFO] Quolex Container Utils: All containers stopped successfully."));
    EXPECT_THAT(LogLines(), Not(Contains(HasSubstr("[ERROR]"))));
}

TEST(Services, AnswerOnASocketThatIsForRootOnly) {
    QxCContainer& service = InitialisedService();
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(IsWatched());

    const auto status = std::filesystem::status(PODMAN_SOCKET);
    EXPECT_EQ(status.type(), std::filesystem::file_type::socket);
    EXPECT_EQ(status.permissions() & std::filesystem::perms::mask,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    service.Stop();
}

TEST(Services, BringUpContainersWithRestartPolicyAlwaysAndNoOthers) {
    const std::string run = "podman run -d --network=none --name ";
    const std::string loop = " localhost/busybox:1 sh -c 'trap \"exit 0\" TERM; while :; do sleep 1; done'";
    {
        WriteSettings(R"({"enabled": true})");
        Daemon firstLife({});
        ASSERT_TRUE(PodmanAnswers());
        ImportBusybox();
        Output(run + "steady --restart=always" + loop);
        Output(run + "once --restart=no" + loop);
        ASSERT_EQ(firstLife.Stop(), 0);
    }
    ConfigurePlatform("[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n");
    QxCContainer& service = QxCContainer::GetInstance();
    ASSERT_TRUE(service.init());

    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(IsWatched());

    EXPECT_EQ(Output("podman ps --format '{{.Names}}'"), "steady");
    EXPECT_EQ(Output("podman exec steady grep Cpus_allowed_list /proc/self/status | cut -f2"), "1");
    EXPECT_THAT(Output("cat " + ContainerCpuSet() + "/libpod-*/cgroup.procs"), Not(IsEmpty()));
    service.Stop();
    EXPECT_EQ(Output("podman ps --format '{{.Names}}'"), "");
}

TEST(Services, AnswerOnTcpWithoutTlsWhenThereAreNoCertificates) {
    QxCContainer& service = InitialisedService(R"({"enabled": true, "tcp_port": 8080})");
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(IsWatched());

    EXPECT_EQ(Output("curl -sf -m 10 http://127.0.0.1:8080/v5.8.1/libpod/_ping"), "OK");
    EXPECT_TRUE(PodmanAnswers());
    EXPECT_EQ(Processes("podman system service").size(), 2U);
    service.Stop();
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    EXPECT_THAT(Children(), IsEmpty());
}

TEST(Services, AnswerOnTcpToClientsWithACertificateOnly) {
    InstallCertificates();
    QxCContainer& service = InitialisedService(R"({"enabled": true, "tcp_port": 8443})");
    if (PodmanVersion() < std::pair(5, 7)) {
        GTEST_SKIP() << "cannot run here: this suite's Podman knows no TLS; it came with 5.7";
    }
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(IsWatched());

    const std::string ask = "curl -sS -f -m 10 ";
    EXPECT_EQ(Output(ask + ClientCertificate + " https://localhost:8443/v5.8.1/libpod/_ping"), "OK");
    EXPECT_NE(
        Shell(ask + "--cacert /opt/qx/share/certs/ca.crt https://localhost:8443/v5.8.1/libpod/_ping").status,
        0);
    EXPECT_NE(Shell(ask + "http://localhost:8443/v5.8.1/libpod/_ping").status, 0);
    EXPECT_THAT(LogLines(),
                Contains("[INFO] Quolex Container Utils: Certificates found, enabling TLS for Podman "
                         "service."));
    service.Stop();
}

TEST(Services, ATakenPortIsReportedAndTheUnixServiceRunsOn) {
    const TakenPort taken;
    QxCContainer& service =
        InitialisedService(R"({"enabled": true, "tcp_port": )" + std::to_string(taken.Port()) + "}");

    ASSERT_TRUE(service.Start());

    ASSERT_TRUE(Logged("TCP Podman service (PID: "));
    EXPECT_THAT(Messages(),
                Contains(MatchesRegex("3 Quolex Container Utils: TCP Podman service \\(PID: [0-9]+\\) - "
                                      "Error code 125")));
    EXPECT_TRUE(PodmanAnswers());
    EXPECT_TRUE(service.Stop());
    EXPECT_THAT(Processes("podman system service"), IsEmpty());
}

TEST(Services, AKilledServiceIsADebugLineAndStopStillWorks) {
    QxCContainer& service = InitialisedService(R"({"enabled": true})", "DEBUG");
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(IsWatched());
    const auto podman = Processes("podman system service");
    ASSERT_EQ(podman.size(), 1U);

    kill(podman[0], SIGKILL);

    EXPECT_TRUE(Logged("[DEBUG] Quolex Container Utils: Unix socket Podman service (PID: " +
                       std::to_string(podman[0]) + ") terminated by signal 9"));
    EXPECT_TRUE(service.Stop());
    EXPECT_THAT(Children(), IsEmpty());
}

TEST(Services, AStopRightAfterTheStartReturns) {
    QxCContainer& service = InitialisedService();

    ASSERT_TRUE(service.Start());
    EXPECT_TRUE(service.Stop());

    EXPECT_THAT(Processes("podman system service"), IsEmpty());
    EXPECT_THAT(Children(), IsEmpty());
}

TEST(InventoryOnBoard, SignalsTheRealProcess) {
    std::filesystem::remove(CONTAINER_TOOLS);
    // Longer than a kernel thread name, so that only the whole name tells it from others.
    Output(
        "cp /bin/bash /tmp/QxInventoryManager; (/tmp/QxInventoryManager -c 'trap \"touch /tmp/signalled\" "
        "WINCH; "
        "touch /tmp/waiting; while [ ! -e /tmp/signalled ]; do sleep 0.05; done' >/dev/null 2>&1 &)");
    ASSERT_TRUE(Eventually([] { return std::filesystem::exists("/tmp/waiting"); }));

    EXPECT_TRUE(QxCContainer::GetInstance().TriggerInventoryTreeScan());

    EXPECT_TRUE(Eventually([] { return std::filesystem::exists("/tmp/signalled"); }));
    EXPECT_THAT(Messages(),
                Contains("2 Quolex Container Service: a system update is required to enable the containers "
                         "service."));
}

TEST(InventoryOnBoard, WithoutTheProcessWarns) {
    std::filesystem::remove(CONTAINER_TOOLS);

    EXPECT_FALSE(QxCContainer::GetInstance().TriggerInventoryTreeScan());

    EXPECT_THAT(
        LogLines(),
        Contains("[WARNING] Quolex Container Service: Sending inventory manager notification failed"));
}

}  // namespace
