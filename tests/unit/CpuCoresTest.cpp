#include "Board.h"
#include "QxCContainer.h"

#include <gmock/gmock.h>

using QxNContainer::QxCContainer;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A board and what its containers are to get.
QxCContainer& Service(unsigned int total, unsigned int usable, unsigned int hypervisor,
                      unsigned int requested) {
    TheScript().totalCores = total;
    TheScript().usableCores = usable;
    TheScript().hypervisorCores = hypervisor;
    Board::WriteSettings(R"({"cores_num": )" + std::to_string(requested) + "}");
    QxCContainer& service = QxCContainer::GetInstance();
    Recording::Forget();
    return service;
}

TEST(CpuCores, UnusedOnesAreTakenFirstAndLinuxGivesTheRest) {
    EXPECT_TRUE(Service(8, 4, 2, 3).AssignCpuCores());

    EXPECT_THAT(Recording::Events(),
                ElementsAre("setContainerRteCoresCount(1)", "CpuSetCreate(libpod_parent, 1 6 7 of 8)",
                            "CpuSetLoadBalance(libpod_parent, 1)"));
}

TEST(CpuCores, TheScannerIsNotToldWhenUnusedOnesSuffice) {
    EXPECT_TRUE(Service(8, 4, 2, 2).AssignCpuCores());

    EXPECT_THAT(Recording::Events(),
                ElementsAre("CpuSetCreate(libpod_parent, 6 7 of 8)", "CpuSetLoadBalance(libpod_parent, 1)"));
}

TEST(CpuCores, OnlyTheFirstUnusedOneIsTakenWhenOneIsWanted) {
    EXPECT_TRUE(Service(8, 4, 2, 1).AssignCpuCores());

    EXPECT_THAT(Recording::Events("CpuSetCreate"), ElementsAre("CpuSetCreate(libpod_parent, 6 of 8)"));
}

TEST(CpuCores, MoreThanAllowedIsAnErrorAndChangesNothing) {
    EXPECT_FALSE(Service(8, 4, 2, 6).AssignCpuCores());

    EXPECT_THAT(Recording::Events("C"), IsEmpty());
    EXPECT_THAT(Recording::Events("set"), IsEmpty());
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container Utils: Invalid number of cores assigned to "
                            "container: 6. Max allowed is 5"));
}

TEST(CpuCores, TheMaximumItselfIsAllowed) {
    EXPECT_TRUE(Service(8, 4, 2, 5).AssignCpuCores());

    EXPECT_THAT(Recording::Events("set"), ElementsAre("setContainerRteCoresCount(3)"));
    EXPECT_THAT(Recording::Events("CpuSetCreate"),
                ElementsAre("CpuSetCreate(libpod_parent, 1 2 3 6 7 of 8)"));
}

TEST(CpuCores, LinuxGivesAllWhenNothingIsUnused) {
    EXPECT_TRUE(Service(4, 4, 0, 2).AssignCpuCores());

    EXPECT_THAT(Recording::Events(),
                ElementsAre("setContainerRteCoresCount(2)", "CpuSetCreate(libpod_parent, 1 2 of 4)",
                            "CpuSetLoadBalance(libpod_parent, 1)"));
}

TEST(CpuCores, LinuxGivesAllWhenTheFiguresOverlap) {
    EXPECT_TRUE(Service(4, 4, 1, 2).AssignCpuCores());

    EXPECT_THAT(Recording::Events("CpuSetCreate"), ElementsAre("CpuSetCreate(libpod_parent, 1 2 of 4)"));
}

TEST(CpuCores, NoneWantedGivesAnEmptySet) {
    EXPECT_TRUE(Service(8, 4, 2, 0).AssignCpuCores());

    EXPECT_THAT(Recording::Events(),
                ElementsAre("CpuSetCreate(libpod_parent, of 8)", "CpuSetLoadBalance(libpod_parent, 1)"));
}

TEST(CpuCores, AreLoggedOneByOneInVerboseDebug) {
    TheScript().logLevel = "DEBUG_VERBOSE";

    EXPECT_TRUE(Service(8, 4, 2, 3).AssignCpuCores());

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre(
            "[DEBUG] Quolex Container Utils: Total CPUs: 8, Usable Cpus: 4, Max Allowed Cpus: 5",
            "[DEBUG_VERBOSE] Quolex Container Utils: Assigning unused physical core 6 to container runtime",
            "[DEBUG_VERBOSE] Quolex Container Utils: Assigning unused physical core 7 to container runtime",
            "[DEBUG_VERBOSE] Quolex Container Utils: Assigning usable core 1 to container runtime"));
}

TEST(CpuCores, OnlyTheFiguresAreLoggedInDebug) {
    TheScript().logLevel = "DEBUG";

    EXPECT_TRUE(Service(8, 4, 2, 3).AssignCpuCores());

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Utils: Total CPUs: 8, Usable Cpus: 4, Max "
                            "Allowed Cpus: 5"));
}

TEST(CpuCores, FiguresAreLoggedBeforeARefusal) {
    TheScript().logLevel = "DEBUG";

    EXPECT_FALSE(Service(8, 4, 2, 6).AssignCpuCores());

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG] Quolex Container Utils: Total CPUs: 8, Usable Cpus: 4, Max Allowed Cpus: 5",
                    testing::StartsWith("[ERROR] ")));
}

TEST(CpuCores, BeyondTheBoardAreLeftOutOfTheMask) {
    // More hypervisor cores than cores: the maximum wraps and allows any number.
    EXPECT_TRUE(Service(2, 2, 2, 300).AssignCpuCores());

    EXPECT_THAT(Recording::Events("CpuSetCreate"), ElementsAre("CpuSetCreate(libpod_parent, 1 of 2)"));
}

TEST(CpuCores, OfALargeBoardFillSeveralWordsOfTheMask) {
    EXPECT_TRUE(Service(200, 60, 20, 121).AssignCpuCores());

    std::string expected = "CpuSetCreate(libpod_parent, 1 ";
    for (int core = 80; core < 200; ++core) {
        expected += std::to_string(core) + " ";
    }
    EXPECT_THAT(Recording::Events("CpuSetCreate"), ElementsAre(expected + "of 200)"));
}

TEST(CpuCores, RequestIsTakenFromMemory) {
    QxCContainer& service = Service(8, 4, 2, 1);
    Board::WriteSettings(R"({"cores_num": 5})");

    EXPECT_TRUE(service.AssignCpuCores());

    EXPECT_THAT(Recording::Events("CpuSetCreate"), ElementsAre("CpuSetCreate(libpod_parent, 6 of 8)"));
}

}  // namespace
