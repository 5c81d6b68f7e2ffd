#include "IniText.h"
#include "QxCCustomConfig.h"
#include "Sandbox.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <thread>

using QxNLinuxPlatform::IniText;
using testing::AllOf;
using testing::HasSubstr;

namespace {

constexpr const char* Configuration = "/etc/quolex/platform.ini";

std::string read(const char* section, const char* option, bool reread = false) {
    return QxCCustomConfig::getInstance()->getOption(section, option, "default", reread);
}

TEST(CustomConfig, GivesTheDefaultWithoutAFile) {
    testing::internal::CaptureStderr();

    EXPECT_EQ(read("Log", "File"), "default");

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(CustomConfig, GivesWhatIsConfigured) {
    Sandbox::WriteFile(Configuration, "; comment\n[ContainerRuntime]\nLogLevel = DEBUG ; comment\n");

    EXPECT_EQ(read(QxNCustomConfig::QxNContainerRuntime::pSection,
                   QxNCustomConfig::QxNContainerRuntime::pOptionLogLevel),
              "DEBUG");
}

TEST(CustomConfig, ComparesSectionAndOptionExactly) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile = a\n");

    EXPECT_EQ(read("log", "File"), "default");
    EXPECT_EQ(read("Log", "file"), "default");
    EXPECT_EQ(read("Log", "Fil"), "default");
    EXPECT_EQ(read("Lo", "File"), "default");
    EXPECT_EQ(read("Log", "File"), "a");
}

TEST(CustomConfig, GivesAnEmptyTextThatIsConfigured) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile =\n");

    EXPECT_EQ(read("Log", "File"), "");
}

TEST(CustomConfig, ReadsAgainOnlyWhenAsked) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile = old\n");
    ASSERT_EQ(read("Log", "File"), "old");
    Sandbox::WriteFile(Configuration, "[Log]\nFile = new\n");

    EXPECT_EQ(read("Log", "File", false), "old");
    EXPECT_EQ(read("Log", "File", true), "new");
    EXPECT_EQ(read("Log", "File", false), "new");
}

TEST(CustomConfig, ForgetsOptionsOfAFileThatIsGone) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile = old\n");
    ASSERT_EQ(read("Log", "File"), "old");
    std::filesystem::remove(Configuration);

    EXPECT_EQ(read("Log", "File", true), "default");
}

TEST(CustomConfig, KeepsTheGoodOptionsAndNamesTheFirstMalformedLine) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile = a\nmalformed\nFiles = 2\n[open\nMaxBytes = 3\n");
    testing::internal::CaptureStderr();

    EXPECT_EQ(read("Log", "File"), "a");
    EXPECT_EQ(read("Log", "Files"), "2");
    EXPECT_EQ(read("Log", "MaxBytes"), "3");

    const std::string notice = testing::internal::GetCapturedStderr();
    EXPECT_THAT(notice, HasSubstr(std::string(Configuration) + ":3:"));
    EXPECT_EQ(std::count(notice.begin(), notice.end(), '\n'), 1);
}

TEST(CustomConfig, SaysWhyAFileCannotBeRead) {
    std::filesystem::create_directories(Configuration);
    testing::internal::CaptureStderr();

    EXPECT_EQ(read("Log", "File"), "default");

    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                AllOf(HasSubstr(Configuration), HasSubstr("Is a directory")));
}

TEST(CustomConfig, TakesNullAsNotSet) {
    EXPECT_EQ(read(nullptr, "File"), "default");
    EXPECT_EQ(read("Log", nullptr), "default");
    EXPECT_EQ(QxCCustomConfig::getInstance()->getOption("Log", "File", nullptr, false), "");
}

TEST(CustomConfig, AnswersWhileAnotherThreadReadsAgain) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile = text\n");
    std::thread other([] {
        for (int i = 0; i < 200; ++i) {
            read("Log", "File", true);
        }
    });

    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(read("Log", "File"), "text");
    }
    other.join();
}

TEST(CustomConfig, KeepsNoDescriptorOpen) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile = text\n");
    const auto before = Sandbox::OpenDescriptors();

    for (int i = 0; i < 20; ++i) {
        read("Log", "File", true);
    }

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
}

TEST(CustomConfig, SampleIsWellFormedAndSetsNothing) {
    const std::string sample = Sandbox::ReadFile(QX_CONFIGURATION_SAMPLE);
    ASSERT_FALSE(sample.empty());

    const IniText options = IniText::parse(sample);

    EXPECT_EQ(options.firstBadLine(), 0);
    EXPECT_EQ(options.option("Log", "MaxBytes"), std::nullopt);
}

TEST(CustomConfig, SampleNamesEveryOptionOnceUnderItsSection) {
    std::string sample = Sandbox::ReadFile(QX_CONFIGURATION_SAMPLE);
    for (std::size_t begin = 0; (begin = sample.find("\n;", begin)) != std::string::npos; ++begin) {
        if (sample[begin + 2] != ' ') {
            sample.erase(begin + 1, 1);
        }
    }

    const IniText options = IniText::parse(sample);

    EXPECT_EQ(options.firstBadLine(), 0);
    EXPECT_EQ(options.option("ContainerRuntime", "LogLevel"), "INFO");
    EXPECT_EQ(options.option("Log", "File"), "/var/log/quolex/container.log");
    EXPECT_EQ(options.option("Log", "MaxBytes"), "1048576");
    EXPECT_EQ(options.option("Log", "Files"), "3");
    EXPECT_EQ(options.option("Messages", "File"), "/run/quolex/messages.jsonl");
    EXPECT_EQ(options.option("Messages", "MaxBytes"), "1048576");
    EXPECT_EQ(options.option("Cores", "Hypervisor"), "0");
    for (const char* option : {"Total", "Usable", "Isolated"}) {
        EXPECT_EQ(options.option("Cores", option), "");
    }
    EXPECT_EQ(options.option("Status", "File"), "/run/quolex/board-status");
}

TEST(IniText, TakesLongValues) {
    const std::string value(100000, 'v');

    const IniText options = IniText::parse("[A]\nfirst = " + value + "\nsecond = 2\n");

    EXPECT_EQ(options.option("A", "first"), value);
    EXPECT_EQ(options.option("A", "second"), "2");
}

TEST(IniText, TakesAnIndentedOptionForAnOptionOfItsOwn) {
    const IniText options = IniText::parse("[A]\nfirst = 1\n  second = 2\n\tthird = 3\n");

    EXPECT_EQ(options.option("A", "first"), "1");
    EXPECT_EQ(options.option("A", "second"), "2");
    EXPECT_EQ(options.option("A", "third"), "3");
}

TEST(IniText, TakesTheLastOfSeveralValues) {
    EXPECT_EQ(IniText::parse("[A]\nx = 1\n[B]\n[A]\nx = 2\n").option("A", "x"), "2");
}

TEST(IniText, TakesCarriageReturnsAndAMissingLastLineFeed) {
    const IniText options = IniText::parse("[A]\r\nx = 1\r\ny = 2");

    EXPECT_EQ(options.option("A", "x"), "1");
    EXPECT_EQ(options.option("A", "y"), "2");
}

TEST(IniText, SurvivesZeroBytesAndBlanksOnly) {
    const IniText options = IniText::parse(std::string_view("[A]\nx = a\0b\ny = 2\n   ", 20));

    EXPECT_EQ(options.option("A", "x"), "a?b");
    EXPECT_EQ(options.option("A", "y"), "2");
    EXPECT_EQ(IniText::parse("").firstBadLine(), 0);
}

}  // namespace
