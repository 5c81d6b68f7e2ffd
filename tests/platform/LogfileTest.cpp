#include "PlatformTest.h"
#include "QxCLogfile.h"
#include "Sandbox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

using namespace PlatformTest;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

constexpr const char* File = "/var/log/quolex/container.log";
constexpr const char* Configuration = "/etc/quolex/platform.ini";

QxCLogfile& logfile() { return *QxCLogfile::getInstance(); }

/// @return the text of a line behind time and thread
std::string textOf(const std::string& line) {
    const std::size_t thread = line.find(' ');
    return line.substr(line.find(' ', thread + 1) + 1);
}

TEST(Logfile, WritesTimeThreadAndText) {
    ::setenv("TZ", "UTC-5", 1);
    ::tzset();

    logfile().logPrintf("[%s] %d\n", "INFO", 42);

    const auto written = lines(Sandbox::ReadFile(File));
    ASSERT_EQ(written.size(), 1U);
    EXPECT_THAT(written[0], testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}\\+05:00 " +
                                                  std::to_string(::gettid()) + " \\[INFO\\] 42"));
}

TEST(Logfile, EndsEveryTextWithOneLineFeed) {
    logfile().logPrintf("none");
    logfile().logPrintf("one\n");
    logfile().logPrintf("two\n\n");
    logfile().logPrintf("last\n");

    const auto written = lines(Sandbox::ReadFile(File));
    ASSERT_EQ(written.size(), 4U);
    EXPECT_EQ(textOf(written[0]), "none");
    EXPECT_EQ(textOf(written[1]), "one");
    EXPECT_EQ(textOf(written[2]), "two");
    EXPECT_EQ(Sandbox::ReadFile(File).back(), '\n');
}

TEST(Logfile, TakesTextOfAnyLength) {
    for (const std::size_t length : {1022U, 1023U, 1024U, 1025U, 100000U}) {
        const std::string text(length, 'x');

        logfile().logPrintf("%s\n", text.c_str());

        EXPECT_EQ(textOf(lines(Sandbox::ReadFile(File)).back()), text);
    }
}

TEST(Logfile, TakesBracesAsTheyAre) {
    logfile().logPrintf("%s\n", "{} {0} %d");

    EXPECT_EQ(textOf(lines(Sandbox::ReadFile(File)).back()), "{} {0} %d");
}

TEST(Logfile, AppendsToWhatAnEarlierProcessWrote) {
    Sandbox::WriteFile(File, "earlier\n");

    logfile().logPrintf("later\n");

    const auto written = lines(Sandbox::ReadFile(File));
    ASSERT_EQ(written.size(), 2U);
    EXPECT_EQ(written[0], "earlier");
}

TEST(Logfile, KeepsTheConfiguredNumberOfFilesOfTheConfiguredSize) {
    Sandbox::WriteFile(Configuration, "[Log]\nFile = /var/log/other/test.log\nMaxBytes = 4096\nFiles = 2\n");
    const std::string text(1000, 'x');

    for (int i = 0; i < 50; ++i) {
        logfile().logPrintf("%s\n", text.c_str());
    }

    EXPECT_LE(fs::file_size("/var/log/other/test.log"), 4096U);
    EXPECT_LE(fs::file_size("/var/log/other/test.1.log"), 4096U);
    EXPECT_EQ(std::distance(fs::directory_iterator("/var/log/other"), {}), 2);
}

TEST(Logfile, KeepsThreeFilesByDefault) {
    const std::string text(100000, 'x');

    for (int i = 0; i < 60; ++i) {
        logfile().logPrintf("%s\n", text.c_str());
    }

    EXPECT_EQ(std::distance(fs::directory_iterator("/var/log/quolex"), {}), 3);
    EXPECT_LE(fs::file_size(File), 1024U * 1024U);
}

TEST(Logfile, FallsBackToTheStandardErrorOutputWithOneNotice) {
    fs::create_directories(File);
    testing::internal::CaptureStderr();

    logfile().logPrintf("first\n");
    logfile().logPrintf("second\n");

    const auto written = lines(testing::internal::GetCapturedStderr());
    ASSERT_EQ(written.size(), 3U);
    EXPECT_THAT(written[0], HasSubstr(File));
    EXPECT_EQ(textOf(written[1]), "first");
    EXPECT_EQ(textOf(written[2]), "second");
}

TEST(Logfile, MixesNoLinesOfManyThreads) {
    const auto log = [](char letter) {
        const std::string text(2000, letter);
        for (int i = 0; i < 100; ++i) {
            logfile().logPrintf("%s\n", text.c_str());
        }
    };
    std::vector<std::thread> threads;

    for (const char letter : {'a', 'b', 'c', 'd'}) {
        threads.emplace_back(log, letter);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    const auto written = lines(Sandbox::ReadFile(File));
    ASSERT_EQ(written.size(), 400U);
    for (const std::string& line : written) {
        const std::string text = textOf(line);
        EXPECT_EQ(text, std::string(2000, text[0]));
    }
}

TEST(Logfile, IsNotInheritedByOtherPrograms) {
    logfile().logPrintf("text\n");

    int found = 0;
    for (const std::string& descriptor : Sandbox::OpenDescriptors()) {
        if (descriptor.find(File) != std::string::npos) {
            ++found;
            EXPECT_EQ(::fcntl(std::stoi(descriptor), F_GETFD), FD_CLOEXEC);
        }
    }
    EXPECT_EQ(found, 1);
}

TEST(Logfile, KeepsOneDescriptorHoweverOftenTheFileIsFull) {
    Sandbox::WriteFile(Configuration, "[Log]\nMaxBytes = 4096\n");
    logfile().logPrintf("text\n");
    const std::size_t before = Sandbox::OpenDescriptors().size();

    for (int i = 0; i < 500; ++i) {
        logfile().logPrintf("%s\n", std::string(100, 'x').c_str());
    }

    EXPECT_EQ(Sandbox::OpenDescriptors().size(), before);
}

}  // namespace
