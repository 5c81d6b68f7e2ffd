#include "ComposeAccess.h"
#include "Recording.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>
#include <array>
#include <csignal>
#include <stdexcept>
#include <thread>

using Recording::TheScript;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

namespace {

class ComposeChild : public testing::Test, protected ComposeFileHandlerTest {};

// --- What the program inherits ---

std::vector<std::string> Environment() {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    return variables;
}

TEST_F(ComposeChild, HandsOverArgumentsAndEnvironmentAsTheyAre) {
    Sandbox::InstallProgram("/tool");
    setenv("DOCKER_HOST", "unix:///run/podman/podman.sock", 1);
    setenv("ODD", "a b\tc=d", 1);
    const std::vector<std::string> words{"another name", "",      " a  b ",
                                         "$(touch /x)",  "'\"\\", "\xc3\xa4\x02"};

    EXPECT_THAT(RunProgram("/tool", words), Pair(0, ""));

    ASSERT_EQ(Sandbox::Calls().size(), 1U);
    EXPECT_EQ(Sandbox::Calls()[0].path, "/tool");
    EXPECT_EQ(Sandbox::Calls()[0].arguments, words);
    EXPECT_EQ(Sandbox::Calls()[0].environment, Environment());
}

TEST_F(ComposeChild, InheritsInputDescriptorsGroupMaskAndPriority) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    setpgid(0, 0);
    setpriority(PRIO_PROCESS, 0, 7);
    ASSERT_EQ(dup2(0, 77), 77);

    EXPECT_THAT(RunScript("set -- $(cat /proc/$$/stat); echo $5; nice; [ /proc/$$/fd/0 -ef /proc/$$/fd/77 ]"),
                Pair(0, std::to_string(getpid()) + "\n7\n"));
    EXPECT_THAT(RunProgram("/bin/grep", {"grep", "SigBlk", "/proc/self/status"}),
                Pair(0, "SigBlk:\t0000000000000800\n"));
}

// --- Nothing is left ---

struct Ending {
    const char* name;
    const char* path;
    const char* script;
};

class ComposeChildEnding : public testing::TestWithParam<Ending>, protected ComposeFileHandlerTest {};

TEST_P(ComposeChildEnding, LeavesNoDescriptorAndNoChild) {
    const auto descriptors = Sandbox::OpenDescriptors();

    for (int round = 0; round < 20; ++round) {
        RunProgram(GetParam().path, {"sh", "-c", GetParam().script});
    }

    EXPECT_EQ(Sandbox::OpenDescriptors(), descriptors);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, ComposeChildEnding,
                         testing::Values(Ending{"Success", "/bin/sh", "exit 0"},
                                         Ending{"Failure", "/bin/sh", "echo e >&2; exit 9"},
                                         Ending{"Killed", "/bin/sh", "kill -9 $$"},
                                         Ending{"Missing", "/no/such/tool", ""},
                                         Ending{"NotExecutable", "/etc/passwd", ""}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(ComposeChild, LeavesNothingWhenTheStatusIsCollectedByOthers) {
    const auto descriptors = Sandbox::OpenDescriptors();
    signal(SIGCHLD, SIG_IGN);

    RunScript("exit 0");

    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(Sandbox::OpenDescriptors(), descriptors);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

// --- Threads ---

TEST_F(ComposeChild, ThreadsRunProgramsAtOnceAndGetTheirOwnOutput) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    const auto descriptors = Sandbox::OpenDescriptors();
    std::vector<std::thread> threads;
    std::array<int, 4> wrong{};
    for (size_t number = 0; number < wrong.size(); ++number) {
        threads.emplace_back([this, number, &wrong] {
            const std::string text = "of thread " + std::to_string(number);
            for (int round = 0; round < 25; ++round) {
                wrong[number] += RunScript("printf '" + text + "'") != Result(0, text);
                wrong[number] += RunScript("printf '" + text + "' >&2; exit 1") != Result(6, text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_THAT(wrong, testing::Each(0));
    EXPECT_EQ(Sandbox::OpenDescriptors(), descriptors);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

// --- Trimming ---

class ComposeTrim : public testing::Test, protected ComposeFileHandlerTest {};

TEST_F(ComposeTrim, TrimsBlanksTabsAndLineEnds) {
    EXPECT_EQ(Trim("  a b \r\n"), "a b");
    EXPECT_EQ(Trim("\t\n\r x\ty \r\n\t"), "x\ty");
    EXPECT_EQ(Trim("web.yaml"), "web.yaml");
    EXPECT_EQ(Trim("x"), "x");
}

TEST_F(ComposeTrim, TrimsATextOfBlanksToNothing) {
    EXPECT_EQ(Trim(""), "");
    EXPECT_EQ(Trim(" \t"), "");
    EXPECT_EQ(Trim("\r\n"), "");
}

TEST_F(ComposeTrim, KeepsOtherWhiteSpace) {
    EXPECT_EQ(Trim("\va"), "\va");
    EXPECT_EQ(Trim(" a\f "), "a\f");
    EXPECT_EQ(Trim("\xc2\xa0"), "\xc2\xa0");
}

TEST_F(ComposeTrim, TrimmingANullPointerIsALogicError) {
    const char* none = nullptr;
    try {
        Trim(none);
        FAIL() << "did not throw";
    } catch (const std::logic_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("construction from null is not valid"));
    }
}

}  // namespace
