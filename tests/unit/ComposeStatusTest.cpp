#include "ComposeAccess.h"
#include "Recording.h"
#include "Sandbox.h"
#include "compose/ComposeStatus.h"

#include <gmock/gmock.h>

using QxNCompose::ProjectNameOf;
using QxNCompose::StatusArrayText;
using QxNJson::json;
using Recording::TheScript;
using testing::ElementsAre;
using testing::IsEmpty;
namespace CmdType = QxNCompose::CmdType;

namespace {

json Parse(const std::string& text) { return json::parse(text, true); }

// --- Conversion of the tool's output ---

TEST(ComposeStatusText, OfLinesIsAnArrayOfThem) {
    EXPECT_EQ(StatusArrayText("{\"Name\":\"a\"}\n{\"Name\":\"b\"}\n"), R"([{"Name":"a"},{"Name":"b"}])");
}

TEST(ComposeStatusText, OfOneLineNeedsNoLineFeed) {
    EXPECT_EQ(StatusArrayText("{}"), "[{}]");
    EXPECT_EQ(StatusArrayText("{}\n"), "[{}]");
    EXPECT_EQ(StatusArrayText("{}\n{}"), "[{},{}]");
}

TEST(ComposeStatusText, OfNothingIsAnEmptyArray) {
    EXPECT_EQ(StatusArrayText(""), "[]");
    EXPECT_EQ(StatusArrayText("\n"), "[]");
}

TEST(ComposeStatusText, DropsOneLineFeedOnlyAndKeepsCarriageReturns) {
    EXPECT_EQ(StatusArrayText("{}\n\n"), "[{},]");
    EXPECT_EQ(StatusArrayText("\n{}\n"), "[,{}]");
    EXPECT_EQ(StatusArrayText("{}\r\n{}\r\n"), "[{}\r,{}\r]");
}

TEST(ComposeProjectName, IsTheLastComponentWithoutItsLastExtension) {
    EXPECT_EQ(ProjectNameOf("/dir/web.yaml"), "web");
    EXPECT_EQ(ProjectNameOf("/dir/a.b.yml"), "a.b");
    EXPECT_EQ(ProjectNameOf("/dir/.env"), ".env");
    EXPECT_EQ(ProjectNameOf("/dir/plain"), "plain");
    EXPECT_EQ(ProjectNameOf("/dir/sub.d/x.yaml"), "x");
    EXPECT_EQ(ProjectNameOf("/dir/ends."), "ends");
    EXPECT_EQ(ProjectNameOf("/dir/.."), "..");
    EXPECT_EQ(ProjectNameOf("/dir/sub/"), "");
    EXPECT_EQ(ProjectNameOf("/dir/\xc3\xbc b.yaml"), "\xc3\xbc b");
}

// --- The status query ---

class ComposeStatusQuery : public testing::Test, protected ComposeFileHandlerTest {
protected:
    static void ToolPrints(const std::string& output, const std::string& script = {}) {
        Sandbox::WriteFile("/status", output);
        Sandbox::InstallProgram("/bin/docker-compose", "cat /status\n" + script);
    }

    int Ask() { return Status("/files/web.yaml", output, status); }

    std::string output = "old content";
    json status = "old content";
};

TEST_F(ComposeStatusQuery, GivesOneEntryForEachLine) {
    ToolPrints("{\"Name\":\"a\",\"State\":\"running\"}\n{\"Name\":\"b\",\"State\":\"exited\"}\n");

    EXPECT_EQ(Ask(), 0);
    EXPECT_EQ(status, Parse(R"([{"Name":"a","State":"running"},{"Name":"b","State":"exited"}])"));
    EXPECT_EQ(output, "");
    ASSERT_EQ(Sandbox::Calls().size(), 1U);
    EXPECT_EQ(Sandbox::Calls()[0].path, "/usr/bin/docker-compose") << "/bin is a link here";
    EXPECT_EQ(Sandbox::Calls()[0].CommandLine(),
              "docker-compose -f /files/web.yaml -p web ps -a --format json");
}

TEST_F(ComposeStatusQuery, OfCarriageReturnsIsJsonAllTheSame) {
    ToolPrints("{\"Name\":\"a\"}\r\n{\"Name\":\"b\"}\r\n");

    EXPECT_EQ(Ask(), 0);
    EXPECT_EQ(status, Parse(R"([{"Name":"a"},{"Name":"b"}])"));
}

TEST_F(ComposeStatusQuery, OfNothingIsAnEmptyArrayAndLoggedSo) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    ToolPrints("");

    EXPECT_EQ(Ask(), 0);
    EXPECT_TRUE(status.is_array());
    EXPECT_TRUE(status.empty());
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container Service:   container status for 'web': []"));
}

TEST_F(ComposeStatusQuery, LogsTheCompactListAtLevelVerboseOnly) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    ToolPrints("{ \"Name\": \"a\", \"Ports\": [ 80 ] }\n");

    Ask();

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container Service:   container status for 'web': "
                            R"([{"Name":"a","Ports":[80]}])"));
}

TEST_F(ComposeStatusQuery, LogsNothingAtLevelDebug) {
    TheScript().logLevel = "DEBUG";
    ToolPrints("{}\n");

    EXPECT_EQ(Ask(), 0);
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(ComposeStatusQuery, ThatFailsLeavesNullAndTheToolsErrors) {
    ToolPrints("{}\n", "printf 'no engine' >&2; exit 1");

    EXPECT_EQ(Ask(), 6);
    EXPECT_TRUE(status.is_null());
    EXPECT_EQ(output, "no engine");
}

TEST_F(ComposeStatusQuery, WithoutAToolLeavesNullAndTheReason) {
    EXPECT_EQ(Ask(), 5);
    EXPECT_TRUE(status.is_null());
    EXPECT_EQ(output, "spawning command failed: No such file or directory");
}

TEST_F(ComposeStatusQuery, ThatIsNotJsonRaisesTheParseError) {
    for (const char* text : {"NAME   IMAGE\n", "{\"Name\":\n", "{}\n\n{}\n", "{} {}\n", "]\n", "\xff\n"}) {
        ToolPrints(text);
        status = "old content";

        EXPECT_THROW(Ask(), json::parse_error) << text;
        EXPECT_TRUE(status.is_null()) << text;
    }
}

TEST_F(ComposeStatusQuery, WithANumberBeyondAllBoundsRaisesTheRangeError) {
    ToolPrints("[{\"Name\":\"web\",\"State\":\"running\",\"Size\":1e999}]\n");
    status = "old content";

    EXPECT_THROW(Ask(), json::out_of_range);
    EXPECT_TRUE(status.is_null());
}

// --- Transitions ---

struct Row {
    const char* name;
    int cmdType;
    const char* before;
    const char* after;
    int result;
    const char* containers;
};

const char* ExpectedStateOf(int cmdType) {
    switch (cmdType) {
        case CmdType::Start:
            return "running";
        case CmdType::Stop:
            return "exited";
        case CmdType::Create:
            return "created";
        default:
            return "";
    }
}

/// Makes a list from a short form: "a:running b:exited".
json List(const std::string& shortForm) {
    json list = json::array();
    std::istringstream words(shortForm);
    for (std::string word; words >> word;) {
        const size_t colon = word.find(':');
        list.push_back({{"Name", word.substr(0, colon)}, {"State", word.substr(colon + 1)}});
    }
    return list;
}

class ComposeTransition : public testing::TestWithParam<Row>, protected ComposeFileHandlerTest {};

TEST_P(ComposeTransition, FollowsTheTable) {
    const Row& row = GetParam();
    json containers = json::array();

    EXPECT_EQ(
        Transition(row.cmdType, ExpectedStateOf(row.cmdType), List(row.before), List(row.after), containers),
        row.result);
    EXPECT_EQ(containers.dump(), List(row.containers).dump());
}

constexpr int Start = CmdType::Start;
constexpr int Stop = CmdType::Stop;
constexpr int Create = CmdType::Create;
constexpr int Remove = CmdType::Remove;

INSTANTIATE_TEST_SUITE_P(
    EmptyLists, ComposeTransition,
    testing::Values(Row{"NothingAtAllCreate", Create, "", "", 1, ""},
                    Row{"NothingAtAllStart", Start, "", "", 3, ""},
                    Row{"NothingAtAllStop", Stop, "", "", 3, ""},
                    Row{"NothingAtAllRemove", Remove, "", "", 3, ""},
                    Row{"AllGoneCreate", Create, "b:created a:exited", "", 5, "b:removing a:removing"},
                    Row{"AllGoneStart", Start, "b:created a:exited", "", 5, "b:removing a:removing"},
                    Row{"AllGoneStop", Stop, "b:running a:exited", "", 5, "b:removing a:removing"},
                    Row{"AllGoneRemove", Remove, "b:created a:exited", "", 5, "b:removing a:removing"},
                    Row{"AllNewCreate", Create, "", "b:created a:exited", 4, "b:created a:exited"},
                    Row{"AllNewStart", Start, "", "b:created a:running", 4, "b:created a:running"},
                    Row{"AllNewStop", Stop, "", "b:created a:running", 4, "b:created a:running"},
                    Row{"AllNewRemove", Remove, "", "b:created a:running", 4, "b:created a:running"}),
    [](const auto& test) { return std::string(test.param.name); });

INSTANTIATE_TEST_SUITE_P(NewContainers, ComposeTransition,
                         testing::Values(Row{"Create", Create, "a:created", "a:created c:created", 2,
                                             "c:created"},
                                         Row{"CreateInAnyState", Create, "a:created",
                                             "c:running a:created b:dead", 2, "c:running b:dead"},
                                         Row{"Start", Start, "a:running", "a:running c:running", 3, ""},
                                         Row{"Stop", Stop, "a:exited", "a:exited c:exited", 3, ""},
                                         Row{"Remove", Remove, "a:exited", "a:exited c:exited", 3, ""}),
                         [](const auto& test) { return std::string(test.param.name); });

INSTANTIATE_TEST_SUITE_P(
    ExistingContainers, ComposeTransition,
    testing::Values(Row{"CreateUnchanged", Create, "a:created", "a:created", 3, ""},
                    Row{"CreateReachesItsState", Create, "a:exited", "a:created", 3, ""},
                    Row{"CreateReachesAnotherState", Create, "a:exited", "a:running", 3, ""},
                    Row{"StartReachesItsState", Start, "a:exited b:exited", "a:running b:exited", 4,
                        "a:running"},
                    Row{"StartUnchanged", Start, "a:running", "a:running", 3, ""},
                    Row{"StartReachesAnotherState", Start, "a:exited", "a:restarting", 3, ""},
                    Row{"StartKeepsTheOrderAfter", Start, "a:exited b:exited", "b:running a:running", 4,
                        "b:running a:running"},
                    Row{"StopReachesItsState", Stop, "a:running", "a:exited", 4, "a:exited"},
                    Row{"StopUnchanged", Stop, "a:running", "a:running", 3, ""},
                    Row{"StopHadReachedItsState", Stop, "a:exited", "a:exited", 3, ""},
                    Row{"StopReachesAnotherState", Stop, "a:running", "a:paused", 3, ""},
                    Row{"RemoveReachesAnotherState", Remove, "a:running", "a:exited", 3, ""},
                    Row{"RemoveReachesTheEmptyState", Remove, "a:running", "a:", 4, "a:"},
                    Row{"StatesAreComparedByteForByte", Start, "a:exited", "a:Running", 3, ""},
                    Row{"NamesAreComparedByteForByte", Start, "a:exited", "A:running", 3, ""},
                    Row{"AnUnknownCommandReachesTheEmptyState", 9, "a:running", "a:", 4, "a:"}),
    [](const auto& test) { return std::string(test.param.name); });

INSTANTIATE_TEST_SUITE_P(
    VanishedContainers, ComposeTransition,
    testing::Values(Row{"Start", Start, "a:exited b:running", "b:running", 3, ""},
                    Row{"StartBesideAChange", Start, "a:exited b:exited", "b:running", 4, "b:running"},
                    Row{"Stop", Stop, "a:exited b:exited", "b:exited", 3, ""},
                    Row{"Create", Create, "a:exited b:created", "b:created", 3, ""},
                    Row{"CreateBesideANewOne", Create, "a:exited", "b:created", 2, "b:created"},
                    Row{"Remove", Remove, "a:exited b:running", "b:running", 5, "a:removing"},
                    Row{"RemoveKeepsTheOrderBefore", Remove, "c:exited a:exited b:running d:dead",
                        "b:running", 5, "c:removing a:removing d:removing"},
                    Row{"RemoveBesideANewOne", Remove, "a:exited", "n:created", 5, "a:removing"},
                    Row{"RemoveAfterAChange", Remove, "a:exited b:running", "b:", 5, "b: a:removing"}),
    [](const auto& test) { return std::string(test.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Duplicates, ComposeTransition,
    testing::Values(
        Row{"TheSecondAfterCountsAsNew", Create, "a:created", "a:created a:exited", 2, "a:exited"},
        Row{"TheSecondAfterIsIgnoredByStart", Start, "a:exited", "a:running a:running", 4, "a:running"},
        Row{"TheFirstBeforeIsTakenFirst", Start, "a:running a:exited", "a:running a:running", 4, "a:running"},
        Row{"TheSecondBeforeVanishes", Remove, "a:exited a:dead", "a:exited", 5, "a:removing"}),
    [](const auto& test) { return std::string(test.param.name); });

class ComposeTransitionDetail : public testing::Test, protected ComposeFileHandlerTest {};

TEST_F(ComposeTransitionDetail, NullCountsAsAnEmptyList) {
    json containers = json::array();

    EXPECT_EQ(Transition(CmdType::Create, "created", nullptr, nullptr, containers), 1);
    EXPECT_EQ(Transition(CmdType::Start, "running", nullptr, List("a:running"), containers), 4);
    EXPECT_EQ(Transition(CmdType::Start, "running", List("b:running"), nullptr, containers), 5);
    EXPECT_EQ(containers.dump(), R"([{"Name":"a","State":"running"},{"Name":"b","State":"removing"}])");
}

TEST_F(ComposeTransitionDetail, IgnoresAllOtherMembers) {
    json containers = json::array();

    EXPECT_EQ(Transition(CmdType::Start, "running",
                         Parse(R"([{"ID":1,"Name":"a","State":"exited","Labels":{"Name":"x"}}])"),
                         Parse(R"([{"State":"running","Health":null,"Name":"a"}])"), containers),
              4);
    EXPECT_EQ(containers.dump(), R"([{"Name":"a","State":"running"}])");
}

TEST_F(ComposeTransitionDetail, LogsEveryContainerAfterAtLevelVerbose) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    json containers = json::array();

    Transition(CmdType::Start, "running", List("a:exited b:exited gone:exited"),
               List("a:running b:exited n:running"), containers);

    const std::string tag = "[DEBUG_VERBOSE] Quolex Container Service:   container ";
    EXPECT_THAT(Recording::Logs(), ElementsAre(tag + "'a': isNew=false, stateChanged=true",
                                               tag + "'b': isNew=false, stateChanged=false",
                                               tag + "'n': isNew=true, stateChanged=false"));
}

TEST_F(ComposeTransitionDetail, LogsAChangeOfAnExistingContainerAlsoForCreate) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    json containers = json::array();

    EXPECT_EQ(Transition(CmdType::Create, "created", List("a:exited"), List("a:created"), containers), 3);

    EXPECT_THAT(Recording::Logs(), ElementsAre("[DEBUG_VERBOSE] Quolex Container Service:   container 'a': "
                                               "isNew=false, stateChanged=true"));
}

TEST_F(ComposeTransitionDetail, LogsNothingAtLevelDebugNorForAnEmptyList) {
    TheScript().logLevel = "DEBUG";
    json containers = json::array();

    Transition(CmdType::Start, "running", List("a:exited"), List("a:running"), containers);

    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(ComposeTransitionDetail, LogsNothingWhenAListIsEmpty) {
    TheScript().logLevel = "DEBUG_VERBOSE";
    json containers = json::array();

    Transition(CmdType::Start, "running", List(""), List("a:running"), containers);
    Transition(CmdType::Start, "running", List("a:running"), List(""), containers);

    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

struct BadEntry {
    const char* before;
    const char* after;
};

TEST_F(ComposeTransitionDetail, EntriesWithoutNameOrStateRaiseTheTypeError) {
    const char* good = R"([{"Name":"a","State":"running"}])";
    for (const char* bad : {R"([{"State":"running"}])", R"([{"Name":1,"State":"x"}])", R"([{"Name":null}])",
                            "[1]", R"([[]])", R"([null])", R"(["Name"])"}) {
        for (const auto& [before, after] : {BadEntry{bad, good}, BadEntry{good, bad}, BadEntry{bad, "[]"},
                                            BadEntry{"[]", bad}, BadEntry{bad, bad}}) {
            json containers = json::array();
            EXPECT_THROW(Transition(CmdType::Start, "running", Parse(before), Parse(after), containers),
                         json::type_error)
                << before << " " << after;
        }
    }
    for (const char* bad :
         {R"([{"Name":"a"}])", R"([{"Name":"a","State":7}])", R"([{"Name":"a","State":[]}])"}) {
        for (const auto& [before, after] : {BadEntry{bad, good}, BadEntry{good, bad}, BadEntry{"[]", bad}}) {
            json containers = json::array();
            EXPECT_THROW(Transition(CmdType::Start, "running", Parse(before), Parse(after), containers),
                         json::type_error)
                << before << " " << after;
        }
    }
}

}  // namespace
