#include "BoardTest.h"

using namespace OnBoard;
using QxNContainer::QxCContainer;
using testing::Contains;

namespace {

/// A board of two cores: Linux has both, containers may get one.
constexpr const char* TwoCores = "[Cores]\nTotal=2\nUsable=2\nHypervisor=0\n";

TEST(CoresOnBoard, CpuSetHoldsWhatIsConfigured) {
    ConfigurePlatform(TwoCores);
    WriteSettings(R"({"enabled": true, "cores_num": 1})");

    ASSERT_TRUE(QxCContainer::GetInstance().init());

    EXPECT_EQ(Output("cat " + ContainerCpuSet() + "/cpuset.cpus"), "1");
    if (CanMoveThreads()) {
        EXPECT_EQ(Output("cat " + ContainerCpuSet() + "/cpuset.sched_load_balance"), "1");
    }
    EXPECT_EQ(Output("cat /run/quolex/container-cores"), "1");
    EXPECT_EQ(QxCContainer::GetInstance().GetMaxAllowedCpuCoreCount(), 1U);
}

TEST(CoresOnBoard, AboveTheMaximumEndInitAndMakeNoSet) {
    ConfigurePlatform(TwoCores);
    WriteSettings(R"({"enabled": true, "cores_num": 2})");

    EXPECT_FALSE(QxCContainer::GetInstance().init());

    EXPECT_THAT(Messages(),
                Contains("3 Quolex Container Utils: Invalid number of cores assigned to container: 2. Max "
                         "allowed is 1"));
    EXPECT_THAT(Messages(),
                Contains("3 Quolex Container Utils: Failed to assign CPU cores for container runtime"));
    EXPECT_FALSE(std::filesystem::exists(ContainerCpuSet()));
    EXPECT_EQ(StateInFile(), ContainerServiceState::NotInitialized);
}

TEST(CoresOnBoard, ServicesRunOnTheAssignedOnes) {
    ConfigurePlatform(TwoCores);
    WriteSettings(R"({"enabled": true, "cores_num": 1})");
    QxCContainer& service = QxCContainer::GetInstance();
    ASSERT_TRUE(service.init());
    ASSERT_TRUE(service.Start());
    ASSERT_TRUE(PodmanAnswers());

    const auto podman = Processes("podman system service");
    ASSERT_EQ(podman.size(), 1U);
    EXPECT_EQ(Output("grep Cpus_allowed_list /proc/" + std::to_string(podman[0]) + "/status | cut -f2"), "1");
    if (CanMoveThreads()) {
        EXPECT_EQ(Output("grep Cpus_allowed_list /proc/self/status | cut -f2"), "0-1")
            << "the host's own threads keep their cores";
    }
    service.Stop();
}

}  // namespace
