#include "CoreList.h"
#include "PlatformTest.h"
#include "QxCHypervisor.h"
#include "QxCScannerBoardHw.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <thread>

using namespace PlatformTest;
using QxNLinuxPlatform::countCores;
using QxNLinuxPlatform::formatCores;
using testing::AllOf;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr const char* Configuration = "/etc/quolex/platform.ini";
constexpr const char* Record = "/run/quolex/container-cores";

struct Figures {
    unsigned total = 99;
    unsigned usable = 99;
    unsigned isolated = 99;
    bool operator==(const Figures&) const = default;
};

Figures ask(QxCErrorListPool& errors) {
    Figures figures;
    QxCScannerBoardHw::getCnCoreCount(errors, figures.total, figures.usable, figures.isolated);
    return figures;
}

/// Lets the kernel's list of cores be another one.
void pretendSystemCores(const std::string& name, const std::string& list) {
    const std::string copy = "/tmp/qx-cores-" + name;
    Sandbox::WriteFile(copy, list);
    ASSERT_EQ(::mount(copy.c_str(), ("/sys/devices/system/cpu/" + name).c_str(), nullptr, MS_BIND, nullptr),
              0);
}

void pretendBoard() {
    pretendSystemCores("present", "0-3,5\n");
    pretendSystemCores("online", "0-2\n");
    pretendSystemCores("isolated", "2\n");
}

unsigned int hypervisorCores() { return QxNHypervisor::QxCHypervisor::getInstance()->getTotalCoreCount(); }

TEST(CoreFigures, AreTheSystemsByDefault) {
    pretendBoard();
    const auto errors = newErrorList();

    EXPECT_EQ(ask(*errors), (Figures{5, 3, 1}));

    EXPECT_EQ(errors->getErrorCount(), 0U);
}

TEST(CoreFigures, ComeFromTheRealSystem) {
    const auto errors = newErrorList();

    const Figures figures = ask(*errors);

    EXPECT_EQ(errors->getErrorCount(), 0U);
    EXPECT_EQ(figures.usable, std::thread::hardware_concurrency());
    EXPECT_GE(figures.total, figures.usable);
}

TEST(CoreFigures, AreWhatIsConfigured) {
    pretendBoard();
    Sandbox::WriteFile(Configuration, "[Cores]\nTotal=8\nUsable=4\nHypervisor=2\nIsolated=0\n");
    const auto errors = newErrorList();

    EXPECT_EQ(ask(*errors), (Figures{8, 4, 0}));
    EXPECT_EQ(hypervisorCores(), 2U);
}

TEST(CoreFigures, NeedNoSystemWhereTheyAreConfigured) {
    pretendSystemCores("present", "nonsense\n");
    Sandbox::WriteFile(Configuration, "[Cores]\nTotal=8\n");
    const auto errors = newErrorList();

    EXPECT_EQ(ask(*errors).total, 8U);

    EXPECT_EQ(errors->getErrorCount(), 0U);
}

TEST(CoreFigures, AreTheDefaultWithOneNoticeWhenAnOptionIsNoNumber) {
    pretendBoard();
    Sandbox::WriteFile(Configuration,
                       "[Cores]\nTotal=many\nUsable=-1\nIsolated=4097\nHypervisor=99999999999\n");
    const auto errors = newErrorList();
    testing::internal::CaptureStderr();

    EXPECT_EQ(ask(*errors), (Figures{5, 3, 1}));
    EXPECT_EQ(ask(*errors), (Figures{5, 3, 1}));
    EXPECT_EQ(hypervisorCores(), 0U);

    const auto notices = lines(testing::internal::GetCapturedStderr());
    ASSERT_EQ(notices.size(), 4U) << "one for each option, once";
    EXPECT_THAT(notices[0], AllOf(HasSubstr(Configuration), HasSubstr("Total"), HasSubstr("'many'")));
    EXPECT_EQ(errors->getErrorCount(), 0U);
}

TEST(CoreFigures, ReportAListThatTheSystemDoesNotGive) {
    const auto errors = newErrorList();
    ASSERT_EQ(::mount("tmpfs", "/sys/devices/system/cpu", "tmpfs", 0, nullptr), 0);

    ask(*errors);

    EXPECT_EQ(errors->getErrorCount(), 3U);
    EXPECT_THAT(texts(*errors)[0],
                AllOf(HasSubstr("/sys/devices/system/cpu/present"), HasSubstr("No such file")));
}

TEST(CoreFigures, ReportAListThatIsNone) {
    pretendBoard();
    pretendSystemCores("present", "0-x\n");
    const auto errors = newErrorList();

    ask(*errors);

    EXPECT_EQ(errors->getErrorCount(), 1U);
}

TEST(Hypervisor, KeepsNoCoresByDefault) { EXPECT_EQ(hypervisorCores(), 0U); }

TEST(ContainerCores, AreRecordedForOtherPrograms) {
    QxCScannerBoardHw::setContainerRteCoresCount(3);
    EXPECT_EQ(Sandbox::ReadFile(Record), "3\n");

    QxCScannerBoardHw::setContainerRteCoresCount(0);
    EXPECT_EQ(Sandbox::ReadFile(Record), "0\n");

    struct stat status {};
    ASSERT_EQ(::stat(Record, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);
    EXPECT_EQ(std::distance(fs::directory_iterator("/run/quolex"), {}), 1) << "no temporary file stays";
}

TEST(ContainerCores, AreNeverFoundIncomplete) {
    QxCScannerBoardHw::setContainerRteCoresCount(1);
    std::thread writer([] {
        for (unsigned int i = 0; i < 500; ++i) {
            QxCScannerBoardHw::setContainerRteCoresCount(1 + i % 2);
        }
    });

    for (int i = 0; i < 500; ++i) {
        EXPECT_THAT(Sandbox::ReadFile(Record), testing::AnyOf("1\n", "2\n"));
    }
    writer.join();
}

TEST(ContainerCores, AreReportedInTheMasterListWhenTheyCannotBeRecorded) {
    fs::create_directories(std::string(Record) + "/in-the-way");
    const auto errors = newErrorList();
    const MasterListScope master(*errors);

    QxCScannerBoardHw::setContainerRteCoresCount(3);

    ASSERT_EQ(errors->getErrorCount(), 1U);
    EXPECT_THAT(texts(*errors)[0], HasSubstr(Record));
    EXPECT_EQ(std::distance(fs::directory_iterator("/run/quolex"), {}), 1) << "no temporary file stays";
}

TEST(CoreList, IsCounted) {
    EXPECT_EQ(countCores("0-3,5\n"), 5U);
    EXPECT_EQ(countCores("0"), 1U);
    EXPECT_EQ(countCores("0-1,1-2\n"), 3U);
    EXPECT_EQ(countCores("0-65535\n"), 65536U);
    EXPECT_EQ(countCores("\n"), 0U);
    EXPECT_EQ(countCores(""), 0U);
}

TEST(CoreList, IsRefusedWhenItIsMalformed) {
    for (const char* list :
         {"a", "1,", ",1", "3-1", "1-", "-1", "1 2", "0-65536", "0\n\n", "4294967296", "1--2"}) {
        EXPECT_EQ(countCores(list), std::nullopt) << list;
    }
}

TEST(CoreList, IsMadeOfAMask) {
    std::uint64_t words[2] = {0b1100'0010, 0};
    EXPECT_EQ(formatCores({words, 128}), "1,6-7");

    words[0] = 0x8000000000000001U;
    words[1] = 0b1011;
    EXPECT_EQ(formatCores({words, 128}), "0,63-65,67");
    EXPECT_EQ(formatCores({words, 65}), "0,63-64") << "bits behind the mask do not count";
    EXPECT_EQ(formatCores({words, 64}), "0,63");
}

TEST(CoreList, OfAnEmptyMaskIsEmpty) {
    std::uint64_t words[1] = {0};

    EXPECT_EQ(formatCores({words, 64}), "");
    EXPECT_EQ(formatCores({nullptr, 0}), "");
}

}  // namespace
