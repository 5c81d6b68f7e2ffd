#include "Board.h"
#include "QxCCTESettings.h"
#include "QxCErrorManager.h"

#include <gmock/gmock.h>
#include <fstream>

using Recording::TheScript;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* ParsePrefix =
    "[DEBUG_VERBOSE] Quolex Container Service: Parsed settings from "
    "'/mnt/cfdrive/containers/container_rte_settings.json': ";

std::string SettingsText(const char* enabled, unsigned port, unsigned cores, int state, unsigned max) {
    return std::string("{\n    \"enabled\": ") + enabled + ",\n    \"tcp_port\": " + std::to_string(port) +
           ",\n    \"cores_num\": " + std::to_string(cores) + ",\n    \"state\": " + std::to_string(state) +
           ",\n    \"max_cpu_core_count\": " + std::to_string(max) + "\n}";
}

TEST(Settings, FirstLoadWritesANewFileWithTheDefaultsAndTheComputedMaximum) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();

    EXPECT_FALSE(settings->getEnabled(false));
    EXPECT_EQ(settings->getState(false), 0);
    EXPECT_EQ(settings->getServiceUserSettings(false).tcpPort, 0U);
    EXPECT_EQ(settings->getServiceUserSettings(false).coresNum, 1U);
    EXPECT_EQ(settings->getMaxCpuCoreCount(), 5U);
    EXPECT_EQ(Board::Settings(), SettingsText("false", 0, 1, 0, 5));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(Settings, GetInstanceGivesTheSameObject) {
    EXPECT_EQ(QxCCTESettings::GetInstance(), QxCCTESettings::GetInstance());
}

TEST(Settings, AMissingFileIsADebugLine) {
    TheScript().logLevel = "DEBUG";

    QxCCTESettings::GetInstance();

    EXPECT_THAT(
        Recording::Logs(),
        ElementsAre("[DEBUG] Quolex Container Service: Settings file "
                    "'/mnt/cfdrive/containers/container_rte_settings.json' not found, using defaults"));
}

TEST(Settings, AFileThatIsGoneLeavesTheValuesInMemory) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    settings->setEnabled(true);
    settings->setServiceUserSettings({8080, 3});
    settings->setState(2);
    std::filesystem::remove(Board::SETTINGS_FILE);

    EXPECT_TRUE(settings->getEnabled(true));
    EXPECT_EQ(settings->getServiceUserSettings(true).tcpPort, 8080U);
    EXPECT_EQ(settings->getServiceUserSettings(true).coresNum, 3U);
    EXPECT_EQ(settings->getState(true), 2);
    EXPECT_FALSE(std::filesystem::exists(Board::SETTINGS_FILE)) << "reading does not write";
}

TEST(Settings, LoadKeepsTheUsersChoicesAndResetsTheState) {
    Board::WriteSettings(R"({"enabled": true, "tcp_port": 8080, "cores_num": 3, "state": 2})");

    QxCCTESettings* settings = QxCCTESettings::GetInstance();

    EXPECT_TRUE(settings->getEnabled(false));
    EXPECT_EQ(settings->getServiceUserSettings(false).tcpPort, 8080U);
    EXPECT_EQ(settings->getServiceUserSettings(false).coresNum, 3U);
    EXPECT_EQ(settings->getState(false), 0);
    EXPECT_EQ(Board::Settings(), SettingsText("true", 8080, 3, 0, 5));
}

TEST(Settings, LogWhatWasParsedAndTheCoreFiguresInVerboseDebug) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    Board::WriteSettings("{ \"enabled\" : true,\n \"name\": \"Zürich\" }");

    QxCCTESettings::GetInstance();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre(std::string(ParsePrefix) + R"({"enabled":true,"name":"Zürich"})",
                            "[DEBUG_VERBOSE] Quolex Container Utils: Hypervisor Cpus: 2",
                            "[DEBUG_VERBOSE] Quolex Container Utils: Unused physical cores available: 2"));
}

TEST(Settings, OfAFileThatIsThereAreNotLoggedInDebug) {
    TheScript().logLevel = "DEBUG";
    Board::WriteSettings(R"({"enabled": true})");

    QxCCTESettings::GetInstance();

    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

struct MismatchCase {
    const char* name;
    const char* file;
};

class SettingsMismatch : public testing::TestWithParam<MismatchCase> {};

TEST_P(SettingsMismatch, LeavesThatMemberAndReadsTheOthers) {
    Board::WriteSettings(R"({"enabled": true, "tcp_port": 70, "cores_num": 4, "state": 3})");
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    settings->setState(3);
    Board::WriteSettings(GetParam().file);
    Recording::Forget();

    const std::string member = GetParam().name;
    EXPECT_EQ(settings->getEnabled(true), member == "enabled");
    EXPECT_EQ(settings->getServiceUserSettings(true).tcpPort, member == "tcp_port" ? 70U : 99U);
    EXPECT_EQ(settings->getServiceUserSettings(true).coresNum, member == "cores_num" ? 4U : 2U);
    EXPECT_EQ(settings->getState(true), member == "state" ? 3 : 1);
    EXPECT_THAT(Recording::Logs(), IsEmpty()) << "a mismatch is silent";
}

INSTANTIATE_TEST_SUITE_P(
    Members, SettingsMismatch,
    testing::Values(
        MismatchCase{"enabled", R"({"enabled": 1, "tcp_port": 99, "cores_num": 2, "state": 1})"},
        MismatchCase{"enabled", R"({"enabled": "false", "tcp_port": 99, "cores_num": 2, "state": 1})"},
        MismatchCase{"enabled", R"({"enabled": null, "tcp_port": 99, "cores_num": 2, "state": 1})"},
        MismatchCase{"enabled", R"({"tcp_port": 99, "cores_num": 2, "state": 1})"},
        MismatchCase{"tcp_port", R"({"enabled": false, "tcp_port": "99", "cores_num": 2, "state": 1})"},
        MismatchCase{"tcp_port", R"({"enabled": false, "tcp_port": true, "cores_num": 2, "state": 1})"},
        MismatchCase{"cores_num", R"({"enabled": false, "tcp_port": 99, "cores_num": [2], "state": 1})"},
        MismatchCase{"state", R"({"enabled": false, "tcp_port": 99, "cores_num": 2, "state": {"a": 1}})"},
        MismatchCase{"state", R"({"enabled": false, "tcp_port": 99, "cores_num": 2})"}));

struct NumberCase {
    const char* text;
    unsigned int value;
};

class SettingsNumber : public testing::TestWithParam<NumberCase> {};

TEST_P(SettingsNumber, IsTakenWithTheBitsOfTheMember) {
    Board::WriteSettings(std::string(R"({"tcp_port": )") + GetParam().text + "}");

    EXPECT_EQ(QxCCTESettings::GetInstance()->getServiceUserSettings(false).tcpPort, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Values, SettingsNumber,
                         testing::Values(NumberCase{"4294967295", 4294967295U}, NumberCase{"8080.9", 8080U},
                                         NumberCase{"-1", 4294967295U}, NumberCase{"-2.5", 4294967294U},
                                         NumberCase{"1e300", 2147483647U},
                                         NumberCase{"-1e300", 2147483648U}));

class SettingsBadText : public testing::TestWithParam<std::string> {};

TEST_P(SettingsBadText, IsAWarningAndLeavesTheValuesInMemory) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    settings->setEnabled(true);
    Board::WriteSettings(GetParam());

    EXPECT_TRUE(settings->getEnabled(true));

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[WARNING] Quolex Container Service: QxCCTESettings::Read: failed to parse "
                            "'/mnt/cfdrive/containers/container_rte_settings.json', using defaults"));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
    EXPECT_EQ(Board::Settings(), GetParam()) << "reading does not write";
}

INSTANTIATE_TEST_SUITE_P(Texts, SettingsBadText,
                         testing::Values("", "{", "{\"enabled\": false", "not json", "{\"enabled\": false} x",
                                         std::string("{\"a\": \"\xff\"}"), std::string(20000, '['),
                                         "{\"enabled\": false, \"tcp_port\": 1e999}"));

TEST(Settings, ADirectoryInTheFilesPlaceIsAWarningAndAWriteError) {
    std::filesystem::create_directories(Board::SETTINGS_FILE);

    EXPECT_FALSE(QxCCTESettings::GetInstance()->setEnabled(true));

    EXPECT_EQ(Recording::Logs().front(),
              "[WARNING] Quolex Container Service: QxCCTESettings::Read: failed to parse "
              "'/mnt/cfdrive/containers/container_rte_settings.json', using defaults");
    EXPECT_EQ(Recording::Logs().back(),
              "[ERROR] Quolex Container Service: QxCCTESettings::Write: cannot open "
              "'/mnt/cfdrive/containers/container_rte_settings.json' for writing");
}

TEST(Settings, AFileThatIsNoObjectChangesNothing) {
    Board::WriteSettings("[true, 1, 2]");

    EXPECT_FALSE(QxCCTESettings::GetInstance()->getEnabled(true));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(Settings, AFileThatCannotBeOpenedIsAWarning) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    settings->setEnabled(true);
    std::filesystem::remove(Board::SETTINGS_FILE);
    // A socket exists and cannot be opened, not even by root.
    std::filesystem::create_directories("/mnt/cfdrive/containers");
    ASSERT_EQ(system("python3 -c \"import socket; socket.socket(socket.AF_UNIX).bind("
                     "'/mnt/cfdrive/containers/container_rte_settings.json')\""),
              0);

    EXPECT_TRUE(settings->getEnabled(true));
    EXPECT_THAT(Recording::Messages(), IsEmpty());
    EXPECT_FALSE(settings->setEnabled(false)) << "it cannot be written either";

    EXPECT_FALSE(settings->getEnabled(false)) << "the value in memory is changed all the same";
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[WARNING] Quolex Container Service: QxCCTESettings::Read: cannot open "
                            "'/mnt/cfdrive/containers/container_rte_settings.json', using defaults",
                            "[ERROR] Quolex Container Service: QxCCTESettings::Write: cannot open "
                            "'/mnt/cfdrive/containers/container_rte_settings.json' for writing"));
}

TEST(Settings, EveryChangeIsWrittenAtOnce) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();

    EXPECT_TRUE(settings->setEnabled(true));
    EXPECT_EQ(Board::Settings(), SettingsText("true", 0, 1, 0, 5));
    EXPECT_TRUE(settings->setState(2));
    EXPECT_EQ(Board::Settings(), SettingsText("true", 0, 1, 2, 5));
    EXPECT_TRUE(settings->setServiceUserSettings({8443, 3}));
    EXPECT_EQ(Board::Settings(), SettingsText("true", 8443, 3, 2, 5));
}

TEST(Settings, AChangeThatCannotBeWrittenStaysInMemory) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    std::filesystem::remove(Board::SETTINGS_FILE);
    std::filesystem::create_directories(Board::SETTINGS_FILE);

    EXPECT_FALSE(settings->setEnabled(true));
    EXPECT_FALSE(settings->setState(2));
    EXPECT_FALSE(settings->setServiceUserSettings({8443, 3}));
    TheScript().totalCores = 16;
    EXPECT_FALSE(settings->ExtractCpuCoreCounts());

    EXPECT_TRUE(settings->getEnabled(false));
    EXPECT_EQ(settings->getState(false), 2);
    EXPECT_EQ(settings->getServiceUserSettings(false).tcpPort, 8443U);
    EXPECT_EQ(settings->getServiceUserSettings(false).coresNum, 3U);
    EXPECT_EQ(settings->getMaxCpuCoreCount(), 13U);
}

TEST(Settings, ExtraMembersAreLostAtTheNextWrite) {
    Board::WriteSettings(R"({"enabled": true, "comment": "mine"})");

    QxCCTESettings::GetInstance();

    EXPECT_THAT(Board::Settings(), Not(testing::HasSubstr("mine")));
}

TEST(Settings, TheMaximumInTheFileIsNeverRead) {
    Board::WriteSettings(R"({"max_cpu_core_count": 64})");

    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    EXPECT_EQ(settings->getMaxCpuCoreCount(), 5U);
    EXPECT_EQ(Board::Settings(), SettingsText("false", 0, 1, 0, 5));

    Board::WriteSettings(R"({"enabled": true, "max_cpu_core_count": 64})");
    EXPECT_TRUE(settings->getEnabled(true));
    EXPECT_EQ(settings->getMaxCpuCoreCount(), 5U);
    EXPECT_TRUE(settings->setState(0));
    EXPECT_EQ(Board::Settings(), SettingsText("true", 0, 1, 0, 5));
}

TEST(Settings, RereadingSeesWhatAnotherProcessWrote) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    Board::WriteSettings(R"({"enabled": true, "tcp_port": 5, "cores_num": 6, "state": 4})");

    EXPECT_FALSE(settings->getEnabled(false));
    EXPECT_EQ(settings->getState(false), 0);
    EXPECT_EQ(settings->getServiceUserSettings(false).tcpPort, 0U);

    EXPECT_EQ(settings->getState(true), 4);
    EXPECT_TRUE(settings->getEnabled(false)) << "one reading brings all members";
    EXPECT_EQ(settings->getServiceUserSettings(false).coresNum, 6U);
}

TEST(Settings, CoreFiguresComeFromBoardAndHypervisor) {
    unsigned int total = 0;
    unsigned int usable = 0;
    unsigned int max = 0;
    int unused = 0;

    QxCCTESettings::GetInstance()->getCpuCoreCounts(total, usable, max, unused);

    EXPECT_EQ(total, 8U);
    EXPECT_EQ(usable, 4U);
    EXPECT_EQ(max, 5U);
    EXPECT_EQ(unused, 2);
}

TEST(Settings, UnusedCoresAreNegativeWhenTheFiguresOverlap) {
    TheScript().totalCores = 4;
    TheScript().usableCores = 4;
    unsigned int total = 0;
    unsigned int usable = 0;
    unsigned int max = 0;
    int unused = 0;

    QxCCTESettings::GetInstance()->getCpuCoreCounts(total, usable, max, unused);

    EXPECT_EQ(unused, -2);
    EXPECT_EQ(max, 1U);
}

TEST(Settings, TheMaximumWrapsLikeUnsignedArithmetic) {
    TheScript().totalCores = 2;
    TheScript().hypervisorCores = 2;

    EXPECT_EQ(QxCCTESettings::GetInstance()->getMaxCpuCoreCount(), 4294967295U);
}

TEST(Settings, AFailedCoreCountIsAnErrorAndLeavesTheFigures) {
    TheScript().coreCountFails = true;

    QxCCTESettings* settings = QxCCTESettings::GetInstance();

    EXPECT_EQ(Board::Settings(), SettingsText("false", 0, 1, 0, 0));
    std::filesystem::remove(Board::SETTINGS_FILE);
    EXPECT_FALSE(settings->ExtractCpuCoreCounts());
    EXPECT_FALSE(std::filesystem::exists(Board::SETTINGS_FILE)) << "there is nothing new to write";
    unsigned int total = 0;
    unsigned int usable = 1;
    unsigned int max = 1;
    int unused = 1;
    settings->getCpuCoreCounts(total, usable, max, unused);
    EXPECT_EQ(total, 8U) << "what the question left there";
    EXPECT_EQ(usable, 0U);
    EXPECT_EQ(max, 0U);
    EXPECT_EQ(unused, 0);
    const std::string line = "[ERROR] Quolex Container Utils: Failed to get CPU core count";
    EXPECT_THAT(Recording::Logs(), testing::ElementsAre(line, line));
    EXPECT_EQ(Recording::LiveLists(), 0) << "the temporary list is deleted";
}

TEST(Settings, ErrorsThatWereInTheMasterListBeforeDoNotCountAsFailure) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    const Recording::MasterErrorList master;
    QxCErrorManager::getSingleton()->getMasterErrorList()->setMessage(QxNSeverity::Error, 0, 1, "x", "old");
    Recording::Forget();

    EXPECT_TRUE(settings->ExtractCpuCoreCounts());
    EXPECT_THAT(Recording::Events("createErrorList"), IsEmpty()) << "the master list is used";

    TheScript().coreCountFails = true;
    EXPECT_FALSE(settings->ExtractCpuCoreCounts());
}

TEST(Settings, AConfigurationDriveThatCannotBeWrittenReachesTheCaller) {
    std::filesystem::create_directories("/mnt");
    Sandbox::WriteFile("/mnt/cfdrive", "a file where the drive should be");

    EXPECT_THROW(QxCCTESettings::GetInstance(), std::filesystem::filesystem_error);
}

TEST(Settings, AFileThatCannotBeLookedAtReachesTheCaller) {
    std::filesystem::create_directories("/mnt/cfdrive/containers");
    std::filesystem::create_symlink(Board::SETTINGS_FILE, Board::SETTINGS_FILE);

    EXPECT_THROW(QxCCTESettings::GetInstance(), std::filesystem::filesystem_error);
}

TEST(Settings, AFullDriveIsReported) {
    QxCCTESettings* settings = QxCCTESettings::GetInstance();
    ASSERT_EQ(mount("tmpfs", "/mnt/cfdrive/containers", "tmpfs", 0, "size=4k,nr_inodes=10"), 0);
    Sandbox::WriteFile("/mnt/cfdrive/containers/fill", std::string(4096, 'x'));

    EXPECT_FALSE(settings->setEnabled(true));
}

}  // namespace
