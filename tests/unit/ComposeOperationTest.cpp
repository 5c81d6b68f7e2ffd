#include "ComposeAccess.h"
#include "ComposeStandIn.h"
#include "Recording.h"

#include <gmock/gmock.h>

using QxNJson::json;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr auto Lines = ComposeStandIn::Lines;
constexpr auto CommandLines = ComposeStandIn::CommandLines;

const std::string Web =
    "docker-compose -f /userstorage1/container_rte/utilities/compose-files/web.yaml -p web ";
const std::string Query = Web + "ps -a --format json";

/// The operations differ in their words only.
struct Operation {
    const char* name;
    int (QxCComposeFileHandler::*run)(const char*, json&);
    const char* words;
    const char* participle;
    const char* before;    ///< containers before
    const char* after;     ///< containers after that make it a success
    const char* reported;  ///< those to report
    int success;
};

const Operation Start{
    "START", &QxCComposeFileHandler::composeStart, "start", "started", "a:exited", "a:running", "a:running",
    0};
const Operation Stop{
    "STOP", &QxCComposeFileHandler::composeStop, "stop", "stopped", "a:running", "a:exited", "a:exited", 0};
const Operation Create{
    "CREATE", &QxCComposeFileHandler::composeCreate, "create", "created", "", "a:created", "a:created", 1};
const Operation Remove{
    "REMOVE", &QxCComposeFileHandler::composeRemove, "rm -f", "removed", "a:exited", "", "a:removing", 0};

class ComposeOperation : public testing::TestWithParam<Operation>, protected ComposeFileHandlerTest {
protected:
    ComposeOperation() { ComposeStandIn::ProvideFile("web.yaml"); }

    int Do(const char* fileName = "web.yaml") { return (handler.*GetParam().run)(fileName, result); }

    ComposeStandIn WithSuccess() { return {Lines(GetParam().before), Lines(GetParam().after)}; }

    json result = "old content";
};

TEST_P(ComposeOperation, AsksRunsAsksAndReportsTheChange) {
    WithSuccess().Install();

    EXPECT_EQ(Do(), GetParam().success);

    EXPECT_EQ(result.dump(),
              ResultObject("Success", std::string("Containers ") + GetParam().participle + " successfully.",
                           GetParam().reported)
                  .dump());
    EXPECT_THAT(CommandLines(), ElementsAre(Query, Web + "--progress quiet " + GetParam().words, Query));
}

TEST_P(ComposeOperation, AnnouncesItsTwoStepsAtLevelDebug) {
    TheScript().logLevel = "DEBUG";
    WithSuccess().Install();

    Do();

    const std::string tag = "[DEBUG] Quolex Container Service: ";
    const std::string name = GetParam().name;
    EXPECT_THAT(Recording::Logs(), ElementsAre(tag + "Check compose file for " + name + " command...",
                                               tag + "Execute compose command " + name + "..."));
}

TEST_P(ComposeOperation, LogsNothingAtLevelInfo) {
    WithSuccess().Install();

    Do();
    Do(nullptr);

    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_P(ComposeOperation, IsASuccessWithCodeSevenWhenNothingChanged) {
    ComposeStandIn{Lines("a:dead"), Lines("a:dead")}.Install();

    EXPECT_EQ(Do(), 7);
    EXPECT_EQ(result.dump(),
              ResultObject("Success", std::string("Command executed successfully, but no containers were ") +
                                          GetParam().participle + ".")
                  .dump());
}

TEST_P(ComposeOperation, RejectsANullFileName) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    ComposeStandIn{}.Install();

    EXPECT_EQ(Do(nullptr), 2);

    EXPECT_EQ(
        result.dump(),
        R"({"Status":"Error","Message":"Checking compose YAML file failed: file name is uninitialized.",)"
        R"("Containers":[]})");
    EXPECT_THAT(Sandbox::Calls(), IsEmpty());
    EXPECT_THAT(Recording::Logs(),
                ElementsAre(std::string("[DEBUG] Quolex Container Service: Check compose file for ") +
                            GetParam().name + " command..."));
}

TEST_P(ComposeOperation, RejectsAFileNameOfBlanks) {
    for (const char* name : {"", " ", " \t \n", "\r\n"}) {
        EXPECT_EQ(Do(name), 3);
        EXPECT_EQ(
            result.dump(),
            ResultObject("Error", "Checking compose YAML file failed: no file name is specified.").dump());
    }
}

TEST_P(ComposeOperation, RejectsAMissingFileByItsTrimmedName) {
    EXPECT_EQ(Do(" other.yaml "), 4);
    EXPECT_EQ(
        result.dump(),
        ResultObject("Error",
                     "Checking compose YAML file failed: file "
                     "'/userstorage1/container_rte/utilities/compose-files/other.yaml' is not existing.")
            .dump());
}

TEST_P(ComposeOperation, TrimsTheFileName) {
    WithSuccess().Install();

    EXPECT_EQ(Do("\t web.yaml \r\n"), GetParam().success);
    EXPECT_EQ(CommandLines()[0], Query);
}

TEST_P(ComposeOperation, WithoutAToolTellsWhy) {
    EXPECT_EQ(Do(), 5);
    EXPECT_EQ(result.dump(),
              ResultObject("Error", "spawning command failed: No such file or directory").dump());
}

TEST_P(ComposeOperation, EndsWithTheToolsErrorsWhenTheFirstQueryFails) {
    ComposeStandIn{.before = "lost", .queryBefore = "echo 'no engine' >&2; exit 1"}.Install();

    EXPECT_EQ(Do(), 6);
    EXPECT_EQ(result.dump(), ResultObject("Error", "no engine\n").dump());
    EXPECT_THAT(CommandLines(), ElementsAre(Query));
}

TEST_P(ComposeOperation, EndsWithTheToolsErrorsWhenTheCommandFails) {
    ComposeStandIn stub = WithSuccess();
    stub.command = "echo lost; echo 'no image' >&2; exit 18";
    stub.Install();

    EXPECT_EQ(Do(), 6);
    EXPECT_EQ(result.dump(), ResultObject("Error", "no image\n").dump());
    EXPECT_EQ(CommandLines().size(), 2U);
}

TEST_P(ComposeOperation, TellsThatTheToolWasKilled) {
    ComposeStandIn stub = WithSuccess();
    stub.command = "echo half >&2; kill -KILL $$";
    stub.Install();

    EXPECT_EQ(Do(), 6);
    EXPECT_EQ(result.dump(), ResultObject("Error", "command terminated abnormally: half\n").dump());
}

TEST_P(ComposeOperation, HasTakenEffectWhenOnlyTheSecondQueryFails) {
    ComposeStandIn stub = WithSuccess();
    stub.queryAfter = "printf gone >&2; exit 1";
    stub.Install();

    EXPECT_EQ(Do(), 6);
    EXPECT_EQ(result.dump(), ResultObject("Error", "gone").dump());
    EXPECT_EQ(CommandLines().size(), 3U);
}

TEST_P(ComposeOperation, TheErrorIsEmptyWhenTheToolFailsSilently) {
    ComposeStandIn stub = WithSuccess();
    stub.command = "exit 1";
    stub.Install();

    EXPECT_EQ(Do(), 6);
    EXPECT_EQ(result.dump(), ResultObject("Error", "").dump());
}

TEST_P(ComposeOperation, ToolThatVanishesInBetweenIsToldAsNotStarted) {
    ComposeStandIn stub = WithSuccess();
    stub.command = "rm /bin/docker-compose";
    stub.Install();

    EXPECT_EQ(Do(), 5);
    EXPECT_EQ(result.dump(),
              ResultObject("Error", "spawning command failed: No such file or directory").dump());
}

TEST_P(ComposeOperation, AMalformedAnswerBeforeRaisesTheParseErrorAndRunsNothing) {
    ComposeStandIn{"NAME IMAGE\n", ""}.Install();

    EXPECT_THROW(Do(), json::parse_error);
    EXPECT_THAT(CommandLines(), ElementsAre(Query));
    EXPECT_TRUE(result.is_null());
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST_P(ComposeOperation, AMalformedAnswerAfterRaisesTheParseErrorAndTheCommandHasRun) {
    ComposeStandIn{"", "{\n"}.Install();

    EXPECT_THROW(Do(), json::parse_error);
    EXPECT_EQ(CommandLines().size(), 3U);
    EXPECT_TRUE(result.is_null());
}

TEST_P(ComposeOperation, AnEntryWithoutANameRaisesTheTypeError) {
    ComposeStandIn{"{\"State\":\"running\"}\n", "{\"Name\":\"a\",\"State\":\"running\"}\n"}.Install();

    EXPECT_THROW(Do(), json::type_error);
    EXPECT_TRUE(result.is_null());
}

TEST_P(ComposeOperation, LeavesNoDescriptorAndNoChild) {
    WithSuccess().Install();
    const auto descriptors = Sandbox::OpenDescriptors();

    Do();
    Do("missing.yaml");
    ComposeStandIn{.before = "x", .queryBefore = "kill -9 $$"}.Install();
    Do();

    EXPECT_EQ(Sandbox::OpenDescriptors(), descriptors);
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST_P(ComposeOperation, HandsItsEnvironmentToTheTool) {
    setenv("DOCKER_HOST", "unix:///somewhere", 1);
    WithSuccess().Install();

    Do();

    ASSERT_EQ(Sandbox::Calls().size(), 3U);
    for (const Sandbox::ProgramCall& call : Sandbox::Calls()) {
        EXPECT_EQ(call.Variable("DOCKER_HOST"), "unix:///somewhere");
        EXPECT_EQ(call.Variable("COMPOSE_PROJECT_NAME"), "(unset)");
    }
}

INSTANTIATE_TEST_SUITE_P(All, ComposeOperation, testing::Values(Start, Stop, Create, Remove),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
