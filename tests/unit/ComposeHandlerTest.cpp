#include "ComposeAccess.h"
#include "ComposeStandIn.h"
#include "Recording.h"
#include "compose/ComposeStatus.h"

#include <gmock/gmock.h>
#include <thread>
#include <type_traits>
#include <utility>

using QxNJson::json;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr auto Lines = ComposeStandIn::Lines;

const std::string Web =
    "docker-compose -f /userstorage1/container_rte/utilities/compose-files/web.yaml -p web ";

class ComposeHandler : public testing::Test, protected ComposeFileHandlerTest {
protected:
    ComposeHandler() { ComposeStandIn::ProvideFile("web.yaml"); }

    json result = "old content";
};

TEST_F(ComposeHandler, LogsEveryStepAtLevelVerbose) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    ComposeStandIn{Lines("a:exited b:exited"), Lines("a:running b:exited")}.Install();

    EXPECT_EQ(handler.composeStart("web.yaml", result), 0);

    const std::string tag = "[DEBUG_VERBOSE] Quolex Container Service:   ";
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG] Quolex Container Service: Check compose file for START command...",
                            "[DEBUG] Quolex Container Service: Execute compose command START...",
                            tag + "container status for 'web': "
                                  R"([{"Name":"a","State":"exited"},{"Name":"b","State":"exited"}])",
                            tag + "container status for 'web': "
                                  R"([{"Name":"a","State":"running"},{"Name":"b","State":"exited"}])",
                            tag + "container 'a': isNew=false, stateChanged=true",
                            tag + "container 'b': isNew=false, stateChanged=false"));
}

TEST_F(ComposeHandler, LogsTheToolsFailureAtLevelVerbose) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    ComposeStandIn{.command = "printf 'no image' >&2; exit 18"}.Install();

    EXPECT_EQ(handler.composeCreate("web.yaml", result), 6);

    const auto logs = Recording::Logs();
    ASSERT_EQ(logs.size(), 5U);
    EXPECT_EQ(logs[3],
              "[DEBUG_VERBOSE] Quolex Container Service:   executing of command failed: "
              "'/bin/docker-compose " +
                  Web + "--progress quiet create'");
    EXPECT_EQ(logs[4], "[DEBUG_VERBOSE] Quolex Container Service:   return code = 18, no image");
}

TEST_F(ComposeHandler, CreateThatMakesNothingFromNothingIsAnError) {
    ComposeStandIn{}.Install();

    EXPECT_EQ(handler.composeCreate("web.yaml", result), 8);
    EXPECT_EQ(result.dump(), ResultObject("Error", "No containers created for unknown reason!").dump());
}

TEST_F(ComposeHandler, OtherCommandsOnAnEmptyProjectChangeNothing) {
    ComposeStandIn{}.Install();

    EXPECT_EQ(handler.composeStart("web.yaml", result), 7);
    EXPECT_EQ(handler.composeStop("web.yaml", result), 7);
    EXPECT_EQ(handler.composeRemove("web.yaml", result), 7);
}

TEST_F(ComposeHandler, StartAndStopThatMadeContainersVanishAreASuccess) {
    ComposeStandIn{Lines("a:running"), ""}.Install();
    EXPECT_EQ(handler.composeStart("web.yaml", result), 0);
    EXPECT_EQ(result.dump(),
              ResultObject("Success", "Containers started successfully.", "a:removing").dump());

    ComposeStandIn{Lines("a:running"), ""}.Install();
    EXPECT_EQ(handler.composeStop("web.yaml", result), 0);
    EXPECT_EQ(result.dump(),
              ResultObject("Success", "Containers stopped successfully.", "a:removing").dump());
}

TEST_F(ComposeHandler, EveryCommandReportsContainersOfAProjectThatHadNone) {
    const std::pair<int (QxCComposeFileHandler::*)(const char*, json&), const char*> operations[] = {
        {&QxCComposeFileHandler::composeStart, "started"},
        {&QxCComposeFileHandler::composeStop, "stopped"},
        {&QxCComposeFileHandler::composeRemove, "removed"}};
    for (const auto& [operation, participle] : operations) {
        ComposeStandIn{"", Lines("a:running")}.Install();

        EXPECT_EQ((handler.*operation)("web.yaml", result), 0);
        EXPECT_EQ(
            result.dump(),
            ResultObject("Success", std::string("Containers ") + participle + " successfully.", "a:running")
                .dump());
    }
}

TEST_F(ComposeHandler, AnUnexpectedTransitionIsAnErrorThatNamesIt) {
    const json containers = ResultObject("", "", "a:running")["Containers"];
    for (const int transition : {0, 6, -1}) {
        const QxNCompose::Outcome outcome =
            QxNCompose::OutcomeOf(QxNCompose::CmdType::Create, "created", transition, containers);

        EXPECT_EQ(outcome.code, 8);
        EXPECT_EQ(outcome.result.dump(), ResultObject("Error", "Unexpected container state transition '" +
                                                                   std::to_string(transition) + "'!")
                                             .dump());
    }
}

TEST_F(ComposeHandler, CreateReportsNewContainersBesideExistingOnes) {
    ComposeStandIn{Lines("a:running"), Lines("a:running b:created c:created")}.Install();

    EXPECT_EQ(handler.composeCreate("web.yaml", result), 1);
    EXPECT_EQ(result.dump(),
              ResultObject("Success", "Containers created successfully.", "b:created c:created").dump());
}

TEST_F(ComposeHandler, CreateThatMadeContainersVanishIsASuccess) {
    ComposeStandIn{Lines("a:running"), ""}.Install();

    EXPECT_EQ(handler.composeCreate("web.yaml", result), 1);
    EXPECT_EQ(result.dump(),
              ResultObject("Success", "Containers created successfully.", "a:removing").dump());
}

TEST_F(ComposeHandler, RemoveReportsTheStoppedOnesOfAProjectThatPartlyRuns) {
    ComposeStandIn{Lines("a:exited b:running"), Lines("b:running")}.Install();

    EXPECT_EQ(handler.composeRemove("web.yaml", result), 0);
    EXPECT_EQ(result.dump(),
              ResultObject("Success", "Containers removed successfully.", "a:removing").dump());
}

TEST_F(ComposeHandler, CommandsHaveTheirNumbers) {
    const std::pair<int, const char*> expected[] = {{1, "start"}, {2, "stop"}, {3, "create"}, {4, "rm -f"}};
    for (const auto& [type, words] : expected) {
        ComposeStandIn{}.Install();
        std::filesystem::remove("/programs.log");

        Execute(ComposeStandIn::FilePath("web.yaml"), type, result);

        EXPECT_EQ(ComposeStandIn::CommandLines().at(1), Web + "--progress quiet " + words);
    }
}

TEST_F(ComposeHandler, RejectsUnknownCommandsWithoutRunningAProgram) {
    ComposeStandIn{}.Install();
    for (const int type : {9, 0, 5, -1}) {
        EXPECT_EQ(Execute(ComposeStandIn::FilePath("web.yaml"), type, result), 8);
        EXPECT_EQ(result.dump(), ResultObject("Error", "unexpected CmdType " + std::to_string(type)).dump());
    }
    EXPECT_THAT(Sandbox::Calls(), IsEmpty());
}

TEST_F(ComposeHandler, PassesArgumentsWithoutAShell) {
    const std::string name = "a b;$(touch x).yaml";
    ComposeStandIn::ProvideFile(name);
    ComposeStandIn{}.Install();

    EXPECT_EQ(handler.composeStop(name.c_str(), result), 7);

    EXPECT_THAT(Sandbox::Calls()[1].arguments,
                ElementsAre("docker-compose", "-f", ComposeStandIn::FilePath(name), "-p", "a b;$(touch x)",
                            "--progress", "quiet", "stop"));
}

TEST_F(ComposeHandler, TwoProjectsAtOnceGetTheirOwnResults) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    for (const char* name : {"one.yaml", "two.yaml"}) {
        ComposeStandIn::ProvideFile(name);
    }
    Sandbox::InstallProgram("/bin/docker-compose",
                            "case \"$*\" in *' ps '*) echo \"{\\\"Name\\\":\\\"$4-1\\\",\\\"State\\\":\\\"$("
                            "cat /$4 || echo exited)\\\"}\" 2>/dev/null;; *) echo running > /$4;; esac");
    QxCComposeFileHandler& shared = handler;
    json other;
    int otherCode = -1;
    std::thread second([&] { otherCode = shared.composeStart("two.yaml", other); });

    EXPECT_EQ(shared.composeStart("one.yaml", result), 0);
    second.join();

    EXPECT_EQ(otherCode, 0);
    EXPECT_EQ(result.dump(),
              ResultObject("Success", "Containers started successfully.", "one-1:running").dump());
    EXPECT_EQ(other.dump(),
              ResultObject("Success", "Containers started successfully.", "two-1:running").dump());
    EXPECT_THAT(Sandbox::Children(), IsEmpty());
}

TEST_F(ComposeHandler, IsPolymorphicAndHoldsItsDirectoryOnly) {
    static_assert(std::has_virtual_destructor_v<QxCComposeFileHandler>);
    static_assert(sizeof(QxCComposeFileHandler) == sizeof(void*) + sizeof(std::string));

    QxCComposeFileHandler elsewhere("/elsewhere");
    elsewhere.composeStart("/web.yaml", result);

    EXPECT_EQ(result["Message"].get<std::string>(),
              "Checking compose YAML file failed: file '/elsewhere/web.yaml' is not existing.");
    elsewhere.composeStart("web.yaml", result);
    EXPECT_EQ(result["Message"].get<std::string>(),
              "Checking compose YAML file failed: file '/elsewhereweb.yaml' is not existing.");
}

}  // namespace
