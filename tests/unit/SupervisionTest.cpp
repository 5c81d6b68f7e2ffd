#include "Board.h"
#include "FakePodman.h"
#include "QxCContainer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <thread>

using QxNContainer::QxCContainer;
using Recording::TheScript;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* StartLine =
    "[INFO] Quolex Container Utils: Starting all containers with --restart=always policy...";
constexpr const char* StartedLine =
    "[INFO] Quolex Container Utils: All containers with restart-policy=always started successfully.";
constexpr const char* UnixSocketLine =
    "[INFO] Quolex Container Utils: Starting Podman service on Unix socket /run/podman/podman.sock";
constexpr const char* SpawnedLine = "[INFO] Quolex Container Utils: Spawned Podman correctly";
constexpr const char* NoCertificatesLine =
    "[INFO] Quolex Container Utils: No certificates found. TLS is not be enabled for Podman service.";
constexpr const char* StartCall = "podman start --all --filter restart-policy=always";
constexpr const char* UnixCall = "podman system service --time=0 unix:///run/podman/podman.sock";

QxCContainer& Service(unsigned int port, const char* logLevel = "INFO") {
    TheScript().logLevel = logLevel;
    Board::WriteSettings(R"({"tcp_port": )" + std::to_string(port) + "}");
    QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    return service;
}

/// Runs the monitor thread on the calling thread, until it ends by itself.
void RunMonitor(QxCContainer& service) { EXPECT_EQ(QxCContainer::ThreadHandler(&service), nullptr); }

void ProvideCertificates(std::initializer_list<const char*> names) {
    std::filesystem::create_directories(Board::CONTAINER_CERTS_DIR);
    for (const char* name : names) {
        Sandbox::WriteFile(Board::CONTAINER_CERTS_DIR + "/" + name, "pem");
    }
}

bool AnyThreadIsIn(long systemCall) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (Sandbox::ReadFile(task.path() / "syscall").starts_with(std::to_string(systemCall) + " ")) {
            return true;
        }
    }
    return false;
}

void RemovePodmanWhen(const std::string& event) {
    TheScript().onEvent = [event](const std::string& happened) {
        if (happened == event) {
            std::filesystem::remove("/bin/podman");
        }
    };
}

// --- Starting ---

TEST(Supervision, WithoutAPortOneServiceListensOnTheUnixSocket) {
    FakePodman{}.Install();
    QxCContainer& service = Service(0);

    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());

    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(StartCall, UnixCall));
    EXPECT_THAT(Recording::Logs(), ElementsAre(StartLine, StartedLine, UnixSocketLine, SpawnedLine));
    EXPECT_TRUE(std::filesystem::is_directory("/run/podman"));
    service.Stop();
}

TEST(Supervision, ServicesGetTheToolsEnvironment) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0);
    service.ConfigureDockerHost();

    RunMonitor(service);

    const Sandbox::ProgramCall call = Sandbox::Calls().back();
    EXPECT_EQ(call.Variable("LD_LIBRARY_PATH"), "/mnt/containers_tools/lib/");
    EXPECT_EQ(call.Variable("PODMAN_IGNORE_CGROUPSV1_WARNING"), "1");
    EXPECT_EQ(call.Variable("DOCKER_HOST"), "unix:///run/podman/podman.sock");
}

TEST(Supervision, SpawningAServiceSetsTheToolsEnvironmentForGood) {
    Sandbox::InstallProgram("/bin/podman");
    setenv("LD_LIBRARY_PATH", "/old", 1);
    setenv("PODMAN_IGNORE_CGROUPSV1_WARNING", "0", 1);

    waitpid(Service(0).SpawnPodmanService(0), nullptr, 0);

    const Sandbox::ProgramCall call = Sandbox::Calls().at(0);
    EXPECT_EQ(call.Variable("LD_LIBRARY_PATH"), "/mnt/containers_tools/lib/");
    EXPECT_EQ(call.Variable("PODMAN_IGNORE_CGROUPSV1_WARNING"), "1");
    EXPECT_STREQ(getenv("LD_LIBRARY_PATH"), "/mnt/containers_tools/lib/");
    EXPECT_STREQ(getenv("PODMAN_IGNORE_CGROUPSV1_WARNING"), "1");
}

TEST(Supervision, ThePortIsTakenFromMemory) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0);
    Board::WriteSettings(R"({"tcp_port": 8080})");

    RunMonitor(service);

    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(StartCall, UnixCall));
}

TEST(Supervision, ThePortIsTakenBeforeTheContainersStart) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0);
    bool isChanged = false;
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find("Starting all containers") != std::string::npos) {
            QxCCTESettings* settings = QxCCTESettings::GetInstance();
            auto user = settings->getServiceUserSettings(false);
            user.tcpPort = 8080;
            isChanged = settings->setServiceUserSettings(user);
        }
    };

    RunMonitor(service);

    EXPECT_TRUE(isChanged);
    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(StartCall, UnixCall));
}

TEST(Supervision, TheSocketsDirectoryIsMadeWithAllItsParents) {
    Sandbox::InstallProgram("/bin/podman");
    QxCContainer& service = Service(0);
    ASSERT_EQ(umount2("/run", MNT_DETACH), 0);
    std::filesystem::remove_all("/run");

    waitpid(service.SpawnPodmanService(0), nullptr, 0);

    EXPECT_TRUE(std::filesystem::is_directory("/run/podman"));
}

TEST(Supervision, AttachesToTheCpuSetFirstAndCollectsErrorsUntilItsEnd) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0);

    RunMonitor(service);

    EXPECT_THAT(
        Recording::Events(),
        ElementsAre("CpuSetAttach(libpod_parent, 0)", "createErrorList(0, 1, 20, 5, 300)",
                    "setMasterErrorList(-1, 0)", StartsWith("log "), StartsWith("log "), StartsWith("log "),
                    StartsWith("log "), "sendErrorList(0)", "clearMasterErrorList(-1)", "deleteErrorList"));
    EXPECT_EQ(Recording::LiveLists(), 0);
}

TEST(Supervision, GivesServicesTwoSecondsBeforeItWatchesThem) {
    FakePodman{}.Install();
    QxCContainer& service = Service(0);
    std::chrono::steady_clock::time_point spawned;
    std::chrono::steady_clock::time_point watched;
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find("Starting Podman service") != std::string::npos) {
            spawned = std::chrono::steady_clock::now();
        }
        if (event.find("Spawned") != std::string::npos) {
            watched = std::chrono::steady_clock::now();
            kill(Sandbox::Children().at(0), SIGKILL);
        }
    };

    RunMonitor(service);

    EXPECT_GE(watched - spawned, std::chrono::milliseconds(1990));
}

TEST(Supervision, WithAPortASecondServiceListensOnAllInterfaces) {
    FakePodman{}.Install();
    QxCContainer& service = Service(8080);

    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());

    EXPECT_THAT(FakePodman::CommandLines(),
                ElementsAre(StartCall, testing::AnyOf(UnixCall, HasSubstr("tcp:")),
                            testing::AnyOf(UnixCall, HasSubstr("tcp:"))));
    EXPECT_THAT(FakePodman::CommandLines(), Contains(UnixCall));
    EXPECT_THAT(FakePodman::CommandLines(), Contains("podman system service --time=0 tcp:0.0.0.0:8080"));
    EXPECT_THAT(Recording::Logs(), ElementsAre(StartLine, StartedLine, NoCertificatesLine, SpawnedLine));
    service.Stop();
}

class RefusedPort : public testing::TestWithParam<unsigned int> {};

TEST_P(RefusedPort, StartsNoServiceAtAll) {
    FakePodman{}.Install();
    QxCContainer& service = Service(GetParam());

    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::MonitorEnded());
    Recording::Record("stop");
    service.Stop();

    const std::string line = "Quolex Container Utils: Invalid port number: " + std::to_string(GetParam());
    EXPECT_THAT(Recording::Logs(), Contains("[ERROR] " + line));
    EXPECT_THAT(Recording::Messages(), Contains("3 " + line));
    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(StartCall, "podman stop --all --time 10"));
    EXPECT_THAT(Recording::Logs(), Not(Contains(HasSubstr("Shutting down"))));
}

INSTANTIATE_TEST_SUITE_P(HttpAndSunRpc, RefusedPort, testing::Values(80U, 111U));

class AcceptedPort : public testing::TestWithParam<unsigned int> {};

TEST_P(AcceptedPort, IsPassedOnAsItIs) {
    Sandbox::InstallProgram("/bin/podman");
    const unsigned int port = GetParam();

    const pid_t pid = Service(0).SpawnPodmanService(port);

    ASSERT_GT(pid, 0);
    waitpid(pid, nullptr, 0);
    EXPECT_THAT(FakePodman::CommandLines(),
                ElementsAre("podman system service --time=0 tcp:0.0.0.0:" + std::to_string(port)));
    EXPECT_FALSE(std::filesystem::exists("/run/podman"))
        << "only the Unix service needs the socket's directory";
}

TEST_P(AcceptedPort, GetsAServiceFromTheMonitorThread) {
    FakePodman{.unixService = "exit 0", .tcpService = "exit 0"}.Install();
    QxCContainer& service = Service(GetParam());

    RunMonitor(service);
    service.Stop();

    EXPECT_THAT(FakePodman::CommandLines(),
                Contains("podman system service --time=0 tcp:0.0.0.0:" + std::to_string(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Any, AcceptedPort,
                         testing::Values(1U, 79U, 81U, 110U, 112U, 443U, 65536U, 4294967295U));

// --- TLS ---

TEST(SupervisionTls, IsEnabledWhenAllThreeFilesAreThere) {
    Sandbox::InstallProgram("/bin/podman");
    ProvideCertificates({"ca.crt", "server.crt", "server.key"});

    waitpid(Service(0).SpawnPodmanService(8080), nullptr, 0);

    EXPECT_THAT(Sandbox::Calls().at(0).arguments,
                ElementsAre("podman", "system", "service", "--time=0", "--tls-client-ca",
                            "/mnt/cfdrive/containers/certs/ca.crt", "--tls-cert",
                            "/mnt/cfdrive/containers/certs/server.crt", "--tls-key",
                            "/mnt/cfdrive/containers/certs/server.key", "tcp:0.0.0.0:8080"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[INFO] Quolex Container Utils: Certificates found, enabling TLS for Podman service."));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
}

class IncompleteCertificates : public testing::TestWithParam<std::vector<const char*>> {};

TEST_P(IncompleteCertificates, AreAWarningToTheUserAndGiveNoTls) {
    Sandbox::InstallProgram("/bin/podman");
    std::filesystem::create_directories(Board::CONTAINER_CERTS_DIR);
    for (const char* name : GetParam()) {
        ProvideCertificates({name});
    }

    waitpid(Service(0).SpawnPodmanService(8080), nullptr, 0);

    const std::string line =
        "Quolex Container Utils: Certificates directory exists but not all required files (ca.crt, "
        "server.crt, "
        "server.key) are not found. TLS will not be enabled.";
    EXPECT_THAT(Recording::Logs(), ElementsAre("[WARNING] " + line));
    EXPECT_THAT(Recording::Messages(), ElementsAre("2 " + line));
    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre("podman system service --time=0 tcp:0.0.0.0:8080"));
}

INSTANTIATE_TEST_SUITE_P(Sets, IncompleteCertificates,
                         testing::Values(std::vector<const char*>{"ca.crt"},
                                         std::vector<const char*>{"ca.crt", "server.crt"},
                                         std::vector<const char*>{"ca.crt", "server.key"},
                                         std::vector<const char*>{"server.crt", "server.key"},
                                         std::vector<const char*>{"notes.txt"}));

struct NoCertificatesCase {
    const char* name;
    void (*prepare)();
};

class NoCertificates : public testing::TestWithParam<NoCertificatesCase> {};

TEST_P(NoCertificates, GiveNoTlsAndAnInfoLine) {
    Sandbox::InstallProgram("/bin/podman");
    GetParam().prepare();

    waitpid(Service(0).SpawnPodmanService(8080), nullptr, 0);

    EXPECT_THAT(Recording::Logs(), ElementsAre(NoCertificatesLine));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre("podman system service --time=0 tcp:0.0.0.0:8080"));
}

INSTANTIATE_TEST_SUITE_P(
    Ways, NoCertificates,
    testing::Values(NoCertificatesCase{"NoDirectory", [] {}},
                    NoCertificatesCase{"EmptyDirectory", [] { ProvideCertificates({}); }},
                    NoCertificatesCase{"AFile", [] { Sandbox::WriteFile(Board::CONTAINER_CERTS_DIR, "x"); }}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(SupervisionTls, IsNotLookedForOnTheUnixSocket) {
    Sandbox::InstallProgram("/bin/podman");
    ProvideCertificates({"ca.crt", "server.crt", "server.key"});

    waitpid(Service(0).SpawnPodmanService(0), nullptr, 0);

    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(UnixCall));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(SupervisionTls, CertificatesThatCannotBeLookedAtReachTheCaller) {
    std::filesystem::create_directories("/mnt/cfdrive/containers");
    std::filesystem::create_symlink(Board::CONTAINER_CERTS_DIR, Board::CONTAINER_CERTS_DIR);

    EXPECT_THROW(Service(0).SpawnPodmanService(8080), std::filesystem::filesystem_error);
}

// --- Services that do not start ---

TEST(Supervision, AServiceThatCannotBeSpawnedHasNoId) {
    QxCContainer& service = Service(0);

    EXPECT_EQ(service.SpawnPodmanService(0), -1);

    EXPECT_THAT(Recording::Logs(), ElementsAre("[ERROR] Quolex Container Utils: posix_spawn failed to "
                                               "execute: No such file or directory"));
}

TEST(Supervision, AMissingPodmanIsReportedByEveryStep) {
    QxCContainer& service = Service(8080);

    RunMonitor(service);

    const std::string summary =
        "Quolex Container Utils: Failed to spawn Podman service: Unix socket service failed. "
        "TCP service failed. ";
    const std::string spawn =
        "[ERROR] Quolex Container Utils: posix_spawn failed to execute: No such file or directory";
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            StartLine,
            "[ERROR] Quolex Container Utils: Failed to start all containers: No such file or directory",
            spawn, NoCertificatesLine, spawn, "[ERROR] " + summary));
    EXPECT_THAT(Recording::Messages(), Contains("3 " + summary));
    EXPECT_THAT(Recording::Events("sendErrorList"), ElementsAre("sendErrorList(0)"));
    EXPECT_EQ(Recording::Events("createErrorList").size(), 1U) << "errors are collected in the thread's list";
}

TEST(Supervision, AUnixServiceThatCannotBeSpawnedIsReportedAlone) {
    FakePodman{}.Install();
    QxCContainer& service = Service(0);
    RemovePodmanWhen(std::string("log ") + UnixSocketLine + "\n");

    RunMonitor(service);

    EXPECT_THAT(
        Recording::Logs(),
        Contains(
            "[ERROR] Quolex Container Utils: Failed to spawn Podman service: Unix socket service failed. "));
    service.Stop();
    EXPECT_THAT(Recording::Logs(), Not(Contains(HasSubstr("Shutting down")))) << "there is nothing to signal";
}

TEST(Supervision, ATcpServiceThatCannotBeSpawnedIsReportedAlone) {
    FakePodman{}.Install();
    QxCContainer& service = Service(8080);
    RemovePodmanWhen(std::string("log ") + NoCertificatesLine + "\n");

    RunMonitor(service);

    EXPECT_THAT(
        Recording::Logs(),
        Contains("[ERROR] Quolex Container Utils: Failed to spawn Podman service: TCP service failed. "));
    service.Stop();
    EXPECT_THAT(Recording::Logs(),
                Contains("[INFO] Quolex Container Utils: Shutting down Unix Podman service..."));
}

TEST(Supervision, ASocketDirectoryThatCannotBeMadeReachesTheCaller) {
    Sandbox::WriteFile("/run/podman", "a file in the way");

    EXPECT_THROW(Service(0).SpawnPodmanService(0), std::filesystem::filesystem_error);
}

TEST(Supervision, ASocketDirectoryThatCannotBeMadeIsNotCaughtInTheMonitorThread) {
    FakePodman{}.Install();
    QxCContainer& service = Service(0);
    Sandbox::WriteFile("/run/podman", "a file in the way");

    EXPECT_THROW(QxCContainer::ThreadHandler(&service), std::filesystem::filesystem_error);
}

// --- Services that end ---

TEST(Supervision, ANormalExitIsADebugLine) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0, "DEBUG");

    RunMonitor(service);

    EXPECT_THAT(Recording::Logs().back(),
                testing::MatchesRegex("\\[DEBUG\\] Quolex Container Utils: Unix socket Podman service "
                                      "\\(PID: [0-9]+\\) exited normally"));
}

TEST(Supervision, ANormalExitSaysNothingUnlessDebugIsOn) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0);

    RunMonitor(service);

    EXPECT_EQ(Recording::Logs().back(), SpawnedLine);
    EXPECT_THAT(Sandbox::Children(), IsEmpty()) << "nothing is started again";
    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(StartCall, UnixCall));
}

TEST(Supervision, AnErrorCodeOfTheTcpServiceIsAnErrorWithItsLabel) {
    FakePodman{.tcpService = "exit 125"}.Install();
    QxCContainer& service = Service(8080);

    RunMonitor(service);

    EXPECT_THAT(
        Recording::Logs().back(),
        testing::MatchesRegex("\\[ERROR\\] Quolex Container Utils: TCP Podman service \\(PID: [0-9]+\\) - "
                              "Error code 125"));
    EXPECT_EQ(Recording::Messages().size(), 1U);
    service.Stop();
}

TEST(Supervision, AKilledServiceIsADebugLineAndTheOtherRunsOn) {
    FakePodman{}.Install();
    QxCContainer& service = Service(8080, "DEBUG");
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());
    const std::vector<int> services = Sandbox::Children();
    ASSERT_EQ(services.size(), 2U);

    kill(services[0], SIGKILL);
    ASSERT_TRUE(FakePodman::MonitorEnded());

    EXPECT_EQ(Recording::Logs().back(), "[DEBUG] Quolex Container Utils: Unix socket Podman service (PID: " +
                                            std::to_string(services[0]) + ") terminated by signal 9");
    EXPECT_THAT(Sandbox::Children(), ElementsAre(services[1]));
    EXPECT_EQ(kill(services[1], 0), 0);
    service.Stop();
}

TEST(Supervision, OnlyTheFirstExitIsHandledAndTheUnixServiceIsLookedAtFirst) {
    FakePodman{.unixService = "exit 3", .tcpService = "exit 4"}.Install();
    QxCContainer& service = Service(8080);

    RunMonitor(service);

    EXPECT_THAT(Recording::Logs(), Contains(HasSubstr("Unix socket Podman service")));
    EXPECT_THAT(Recording::Logs(), Not(Contains(HasSubstr("TCP Podman service"))));
    EXPECT_EQ(Recording::Messages().size(), 1U);
    service.Stop();
}

TEST(Supervision, AServiceThatEndedIsNotSignalledLater) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0);
    RunMonitor(service);
    Recording::Forget();

    service.Stop();

    EXPECT_THAT(Recording::Logs(), IsEmpty()) << "its id can belong to another process by now";
}

TEST(Supervision, LeavesNoDescriptorAndNoChildBehind) {
    FakePodman{.unixService = "exit 0"}.Install();
    QxCContainer& service = Service(0);
    const auto before = Sandbox::OpenDescriptors();

    RunMonitor(service);

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

// --- Waiting ---

TEST(Supervision, AnInterruptedWaitIsRepeated) {
    FakePodman{}.Install();
    struct sigaction action {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    QxCContainer& service = Service(0);
    pid_t monitor = 0;
    TheScript().onEvent = [&](const std::string& event) {
        if (event.starts_with("CpuSetAttach")) {
            monitor = static_cast<pid_t>(syscall(SYS_gettid));
        }
    };
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());
    // The thread sleeps in poll once the kernel says so; then every signal interrupts it.
    const std::string waitChannel = "/proc/self/task/" + std::to_string(monitor) + "/syscall";
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(Sandbox::Eventually(
            [&] { return Sandbox::ReadFile(waitChannel).starts_with(std::to_string(SYS_poll) + " "); }));
        ASSERT_EQ(syscall(SYS_tgkill, getpid(), monitor, SIGUSR1), 0);
        Sandbox::SleepForPoll();
    }

    EXPECT_THAT(Recording::Events("clearMasterErrorList"), IsEmpty());
    service.Stop();
    EXPECT_THAT(Recording::Logs(), Not(Contains(HasSubstr("failed"))));
}

TEST(Supervision, AFailingWaitIsAnErrorAndEndsTheThread) {
    FakePodman{}.Install();
    QxCContainer& service = Service(0);
    rlimit original{};
    getrlimit(RLIMIT_NOFILE, &original);
    // poll refuses to look at more descriptors than the process may have.
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find("Spawned Podman correctly") != std::string::npos) {
            const rlimit none{0, original.rlim_max};
            setrlimit(RLIMIT_NOFILE, &none);
        }
        if (event.find("failed") != std::string::npos) {
            setrlimit(RLIMIT_NOFILE, &original);  // sanitizers need descriptors to look at memory
        }
    };

    RunMonitor(service);
    setrlimit(RLIMIT_NOFILE, &original);

    EXPECT_EQ(Recording::Logs().back(),
              "[ERROR] Quolex Container Utils: poll on pidfds failed: Invalid argument");
    service.Stop();
}

TEST(Supervision, AProcessDescriptorThatCannotBeOpenedIsAnErrorAndEndsTheThread) {
    FakePodman{}.Install();
    QxCContainer& service = Service(8080);
    rlimit original{};
    getrlimit(RLIMIT_NOFILE, &original);
    // Fill the table up to the limit with descriptors that the children do not inherit; one place is left.
    constexpr int Limit = 64;
    while (open("/dev/null", O_RDONLY | O_CLOEXEC) < Limit - 2) {
    }
    const rlimit few{Limit, original.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find("failed") != std::string::npos) {
            setrlimit(RLIMIT_NOFILE, &original);  // sanitizers need descriptors to look at memory
        }
    };

    RunMonitor(service);
    setrlimit(RLIMIT_NOFILE, &original);

    EXPECT_EQ(Recording::Logs().back(),
              "[ERROR] Quolex Container Utils: pidfd_open failed: Too many open files");
    EXPECT_THAT(Recording::Logs(), Not(Contains(SpawnedLine)));
    EXPECT_NE(fcntl(Limit - 1, F_GETFD), -1) << "the descriptor that was opened before stays open";
    service.Stop();
}

// --- Ending the services ---

TEST(Supervision, StopEndsBothServicesAndTheThread) {
    FakePodman{}.Install();
    QxCContainer& service = Service(8080);
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());
    Recording::Forget();

    EXPECT_TRUE(service.Stop());

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[INFO] Quolex Container Utils: Shutting down Unix Podman service...",
                            "[INFO] Quolex Container Utils: Shutting down TCP Podman service...",
                            "[INFO] Quolex Container Utils: Stopping all running containers...",
                            "[INFO] Quolex Container Utils: All containers stopped successfully."));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(Supervision, AServiceThatStopEndedIsADebugLine) {
    FakePodman{}.Install();
    QxCContainer& service = Service(0, "DEBUG");
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());
    const std::string id = std::to_string(Sandbox::Children().at(0));

    service.Stop();

    EXPECT_THAT(Recording::Logs(),
                Contains("[DEBUG] Quolex Container Utils: Unix socket Podman service (PID: " + id +
                         ") terminated by signal 15"));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
}

TEST(Supervision, StopSignalsBeforeItStopsContainersBeforeItJoins) {
    // Podman's stop waits for the service to have got its signal: in another order it would give up.
    FakePodman{.stop =
                   "n=0; while ! grep -q TERM /terminations 2>/dev/null && [ $n -lt 500 ]; do sleep 0.02; "
                   "n=$((n+1)); done; cat /terminations > /seen-by-stop; touch /end",
               .unixService = FakePodman::CountTerminations}
        .Install();
    QxCContainer& service = Service(0);
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());
    Recording::Forget();

    service.Stop();

    EXPECT_EQ(Sandbox::ReadFile("/seen-by-stop"), "TERM\n");
    const auto events = Recording::Events();
    const auto at = [&](const char* text) {
        return std::find_if(events.begin(), events.end(),
                            [&](const std::string& event) { return event.find(text) != std::string::npos; });
    };
    EXPECT_EQ(events.front(), "setContainerRteCoresCount(0)");
    EXPECT_LT(at("Shutting down Unix"), at("Stopping all running containers"));
    EXPECT_LT(at("All containers stopped"), at("joinThread(-1)"));
    EXPECT_LT(at("joinThread(-1)"), at("getBlockDeviceMountInfo")) << "write-back mode is restored last";
}

TEST(Supervision, AServiceIsSignalledOnceHoweverOftenStopIsCalled) {
    FakePodman{.stop = "touch /end", .unixService = FakePodman::CountTerminations}.Install();
    QxCContainer& service = Service(0);
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());

    EXPECT_TRUE(service.Stop());
    EXPECT_TRUE(service.Stop());

    EXPECT_EQ(Sandbox::ReadFile("/terminations"), "TERM\n");
    EXPECT_EQ(Recording::Events("joinThread").size(), 1U);
    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(StartCall, UnixCall, "podman stop --all --time 10"));
}

TEST(Supervision, AServiceIsClaimedOnceUnderContention) {
    FakePodman{.unixService = FakePodman::CountTerminations}.Install();
    QxCContainer& service = Service(0);
    std::thread monitor([&] { RunMonitor(service); });
    ASSERT_TRUE(FakePodman::IsWatched());
    ASSERT_TRUE(Sandbox::Eventually([] { return std::filesystem::exists("/ready"); }));

    std::vector<std::thread> stoppers;
    std::atomic<bool> go{false};
    for (int i = 0; i < 8; ++i) {
        stoppers.emplace_back([&] {
            while (!go) {
            }
            service.Stop();  // without a thread handle: what is contended is the service's id
        });
    }
    go = true;
    for (std::thread& stopper : stoppers) {
        stopper.join();
    }
    ASSERT_TRUE(Sandbox::Eventually([] { return !Sandbox::ReadFile("/terminations").empty(); }));
    Sandbox::WriteFile("/end", "");
    monitor.join();

    EXPECT_EQ(Sandbox::ReadFile("/terminations"), "TERM\n");
    EXPECT_EQ(Recording::Events("log [INFO] Quolex Container Utils: Shutting down Unix").size(), 1U);
}

TEST(Supervision, AStopWhileContainersAreStartingStartsNoService) {
    FakePodman{.start = "touch /starting; while [ ! -e /go ]; do sleep 0.02; done"}.Install();
    QxCContainer& service = Service(8080);
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(Sandbox::Eventually([] { return std::filesystem::exists("/starting"); }));

    std::thread stopper([&] { service.Stop(); });
    ASSERT_TRUE(FakePodman::Logged("[INFO] Quolex Container Utils: Stopping all running containers..."));
    Sandbox::WriteFile("/go", "");
    stopper.join();

    EXPECT_THAT(FakePodman::CommandLines(), ElementsAre(StartCall, "podman stop --all --time 10"));
    EXPECT_FALSE(std::filesystem::exists("/run/podman")) << "made right before the service would be";
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(Supervision, AStopBeforeServicesAreWatchedCountsAsAFailedSpawn) {
    FakePodman{}.Install();
    QxCContainer& service = Service(0);
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(Sandbox::Eventually([] { return AnyThreadIsIn(SYS_clock_nanosleep); }))
        << "the settling time";

    service.Stop();

    EXPECT_THAT(Recording::Logs(), Contains("[ERROR] Quolex Container Utils: Failed to spawn Podman service: "
                                            "Unix socket service failed. "));
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(Supervision, AServiceThatIsStoppedWhileItsEndIsSeenIsCollectedOnce) {
    FakePodman{.unixService = "trap 'exit 7' TERM; echo ready >> /ready; while :; do sleep 0.02; done"}
        .Install();
    QxCContainer& service = Service(0);
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::IsWatched());

    service.Stop();

    EXPECT_THAT(Recording::Messages(), Contains(HasSubstr("Error code 7")));
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST(Supervision, AServiceThatStartsWhileStopLooksIsEndedToo) {
    FakePodman{}.Install();
    QxCContainer& service = Service(8080);
    std::thread stopper;
    // The TCP service is about to be spawned when Stop() has looked for it already.
    TheScript().onEvent = [&](const std::string& event) {
        if (event.find("No certificates found") != std::string::npos) {
            stopper = std::thread([&] { service.Stop(); });
            Sandbox::Eventually([] {
                const auto lines = Recording::Logs();
                return std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
                    return line.find("Stopping all") != std::string::npos;
                });
            });
        }
    };
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(FakePodman::MonitorEnded());
    stopper.join();

    EXPECT_THAT(Sandbox::Children(), IsEmpty());
    EXPECT_THAT(Recording::Logs(), Not(Contains(SpawnedLine)));
}

}  // namespace
