#include "Board.h"
#include "QxCContainer.h"
#include "tests/crp/FailingSystemCall.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <cerrno>
#include <csignal>

using QxNContainer::QxCContainer;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

QxCContainer& Service() {
    QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    return service;
}

/// The two operations differ in their words only.
struct Operation {
    const char* name;
    void (QxCContainer::*run)();
    const char* commandLine;
    const char* announcement;
    const char* success;
    const char* spawnFailure;
    const char* exitFailure;
};

class BulkContainers : public testing::TestWithParam<Operation> {};

TEST_P(BulkContainers, RunsPodmanAndReportsSuccess) {
    Sandbox::InstallProgram("/bin/podman");

    (Service().*GetParam().run)();

    ASSERT_EQ(Sandbox::Calls().size(), 1U);
    EXPECT_EQ(Sandbox::Calls()[0].CommandLine(), GetParam().commandLine);
    EXPECT_THAT(Recording::Logs(), ElementsAre(GetParam().announcement, GetParam().success));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
}

TEST_P(BulkContainers, SetsTheEnvironmentForPodmanAndLater) {
    Sandbox::InstallProgram("/bin/podman");
    setenv("LD_LIBRARY_PATH", "/old", 1);
    setenv("PODMAN_IGNORE_CGROUPSV1_WARNING", "0", 1);

    (Service().*GetParam().run)();

    EXPECT_EQ(Sandbox::Calls()[0].Variable("LD_LIBRARY_PATH"), "/mnt/containers_tools/lib/");
    EXPECT_EQ(Sandbox::Calls()[0].Variable("PODMAN_IGNORE_CGROUPSV1_WARNING"), "1");
    EXPECT_STREQ(getenv("LD_LIBRARY_PATH"), "/mnt/containers_tools/lib/");
    EXPECT_STREQ(getenv("PODMAN_IGNORE_CGROUPSV1_WARNING"), "1");
}

TEST_P(BulkContainers, ReportsAMissingPodman) {
    (Service().*GetParam().run)();

    const std::string line = std::string("[ERROR] ") + GetParam().spawnFailure + "No such file or directory";
    EXPECT_THAT(Recording::Logs(), ElementsAre(GetParam().announcement, line));
    EXPECT_THAT(Recording::Messages(), ElementsAre("3 " + line.substr(8)));
}

TEST_P(BulkContainers, ReportsTheExitStatus) {
    Sandbox::InstallProgram("/bin/podman", "exit 125");

    (Service().*GetParam().run)();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre(GetParam().announcement, std::string(GetParam().exitFailure) + "125."));
}

TEST_P(BulkContainers, ReportsMinusOneWhenPodmanWasKilled) {
    Sandbox::InstallProgram("/bin/podman", "kill -9 $$");

    (Service().*GetParam().run)();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre(GetParam().announcement, std::string(GetParam().exitFailure) + "-1."));
}

TEST_P(BulkContainers, TakesAnInterruptedWaitForSuccess) {
    Sandbox::InstallProgram("/bin/podman", "exit 125");
    QxCContainer& service = Service();
    constexpr FailingArgument WithoutOptions{2, 0};
    FailSystemCall(SYS_wait4, EINTR, WithoutOptions);

    (service.*GetParam().run)();

    EXPECT_THAT(Recording::Logs(), ElementsAre(GetParam().announcement, GetParam().success));
}

TEST_P(BulkContainers, TakesAStatusThatCannotBeCollectedForSuccess) {
    Sandbox::InstallProgram("/bin/podman", "exit 125");
    QxCContainer& service = Service();
    signal(SIGCHLD, SIG_IGN);  // the kernel collects children by itself

    (service.*GetParam().run)();

    EXPECT_THAT(Recording::Logs(), ElementsAre(GetParam().announcement, GetParam().success));
}

TEST_P(BulkContainers, LeavesPodmansOutputWhereThatOfTheHostGoes) {
    Sandbox::InstallProgram("/bin/podman", "echo to standard output; echo to standard error >&2");
    QxCContainer& service = Service();

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    (service.*GetParam().run)();

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "to standard output\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to standard error\n");
}

TEST_P(BulkContainers, WaitsForPodmanAndLeavesNothingBehind) {
    Sandbox::InstallProgram("/bin/podman", "sleep 0.3; echo done > /done");
    QxCContainer& service = Service();
    const auto before = Sandbox::OpenDescriptors();

    (service.*GetParam().run)();

    EXPECT_EQ(Sandbox::ReadFile("/done"), "done\n");
    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Both, BulkContainers,
    testing::Values(
        Operation{
            "Start", &QxCContainer::StartAllContainers, "podman start --all --filter restart-policy=always",
            "[INFO] Quolex Container Utils: Starting all containers with --restart=always policy...",
            "[INFO] Quolex Container Utils: All containers with restart-policy=always started successfully.",
            "Quolex Container Utils: Failed to start all containers: ",
            "[ERROR] Quolex Container Utils: podman start --all exited with status "},
        Operation{"Stop", &QxCContainer::StopAllContainers, "podman stop --all --time 10",
                  "[INFO] Quolex Container Utils: Stopping all running containers...",
                  "[INFO] Quolex Container Utils: All containers stopped successfully.",
                  "Quolex Container Utils: Failed to stop all containers: ",
                  "[ERROR] Quolex Container Utils: podman stop --all exited with status "}),
    [](const auto& test) { return std::string(test.param.name); });

// --- Inventory ---

constexpr const char* RebootLine =
    "[WARNING] Quolex Container Service: a system reboot is required to enable the containers service.";
constexpr const char* UpdateLine =
    "[WARNING] Quolex Container Service: a system update is required to enable the containers service.";

TEST(InventoryScan, WithTheImagePresentAsksForARebootAndSignalsNobody) {
    Sandbox::WriteFile(Board::CONTAINER_TOOLS, "image");
    QxCContainer& service = Service();

    EXPECT_TRUE(service.TriggerInventoryTreeScan());

    EXPECT_THAT(Recording::Logs(), ElementsAre(RebootLine));
    EXPECT_THAT(Recording::Messages(), ElementsAre(std::string("2 ") + (RebootLine + 10)));
    EXPECT_THAT(Recording::Events("signalProcess"), IsEmpty());
    EXPECT_THAT(Recording::Events("getProcessID"), IsEmpty());
}

TEST(InventoryScan, AnythingAtTheImagesPlaceCounts) {
    std::filesystem::create_directories(Board::CONTAINER_TOOLS);

    EXPECT_TRUE(Service().TriggerInventoryTreeScan());
    EXPECT_THAT(Recording::Logs(), ElementsAre(RebootLine));
}

TEST(InventoryScan, ADanglingLinkIsAMissingImage) {
    std::filesystem::create_directories("/mnt/cfdrive");
    std::filesystem::create_symlink("/nowhere", Board::CONTAINER_TOOLS);
    TheScript().processes["QxInventoryManager"] = 1;

    EXPECT_TRUE(Service().TriggerInventoryTreeScan());
    EXPECT_THAT(Recording::Logs(), ElementsAre(UpdateLine));
}

TEST(InventoryScan, AnImageThatCannotBeLookedAtIsMissing) {
    std::filesystem::create_directories("/mnt/cfdrive");
    std::filesystem::create_symlink(Board::CONTAINER_TOOLS, Board::CONTAINER_TOOLS);
    TheScript().processes["QxInventoryManager"] = 1;

    EXPECT_TRUE(Service().TriggerInventoryTreeScan());
    EXPECT_THAT(Recording::Logs(), ElementsAre(UpdateLine));
}

TEST(InventoryScan, WithoutTheImageSignalsTheInventoryManagerAndAsksForAnUpdate) {
    TheScript().processes["QxInventoryManager"] = 4711;
    QxCContainer& service = Service();

    EXPECT_TRUE(service.TriggerInventoryTreeScan());

    EXPECT_THAT(Recording::Events("getProcessID"), ElementsAre("getProcessID(QxInventoryManager)"));
    EXPECT_THAT(Recording::Events("signalProcess"), ElementsAre("signalProcess(4711, 28, 0)"));
    EXPECT_THAT(Recording::Messages(), ElementsAre(std::string("2 ") + (UpdateLine + 10)));
}

TEST(InventoryScan, WithoutTheInventoryManagerWarnsAndFails) {
    QxCContainer& service = Service();

    EXPECT_FALSE(service.TriggerInventoryTreeScan());

    EXPECT_THAT(Recording::Events("signalProcess"), ElementsAre("signalProcess(0, 28, 0)"));
    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[WARNING] Quolex Container Service: Sending inventory manager notification failed"));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
}

}  // namespace
