#include "ContainerState.h"

#include <gmock/gmock.h>

namespace {

TEST(ContainerStates, AreReadFromWhatPodmanAnswers) {
    const auto state = ContainerState::Read(
        R"({"Id":"abc","Name":"web","State":{"Status":"exited","ExitCode":7,"FinishedAt":"now"},)"
        R"("Config":{"Tty":true},"HostConfig":{"RestartPolicy":{"Name":"always","MaximumRetryCount":0}}})");
    ASSERT_TRUE(state);
    EXPECT_EQ(state->id, "abc");
    EXPECT_EQ(state->status, "exited");
    EXPECT_EQ(state->exitCode, 7);
    EXPECT_EQ(state->finishedAt, "now");
    EXPECT_TRUE(state->hasTerminal);
    EXPECT_TRUE(state->isRestarted);
    EXPECT_FALSE(state->IsRunning());
}

TEST(ContainerStates, DoWithoutWhatIsMissingOrOfAnotherKind) {
    const auto state = ContainerState::Read(
        R"({"Id":"abc","State":7,"Config":{"Tty":"yes"},"HostConfig":{"RestartPolicy":[]}})");
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->hasTerminal);
    EXPECT_FALSE(state->isRestarted);
    EXPECT_EQ(state->status, "");
}

TEST(ContainerStates, AreNothingElse) {
    for (const char* text : {"", "[]", "{}", "7", R"({"Id":7})", R"({"Id":""})", R"({"Id":"a/b"})"}) {
        EXPECT_FALSE(ContainerState::Read(text)) << text;
    }
}

TEST(ContainerStates, KnowNamesThatAreSafeInAUrl) {
    for (const char* name : {"a", "Web-1.x_y", "0123abc"}) {
        EXPECT_TRUE(ContainerState::IsName(name)) << name;
    }
    for (const char* name : {"", ".", "-a", "a/b", "a?b", "a b", "a%20", "\xc3\xa4"}) {
        EXPECT_FALSE(ContainerState::IsName(name)) << name;
    }
    EXPECT_FALSE(ContainerState::IsName(std::string(256, 'a')));
}

}  // namespace
