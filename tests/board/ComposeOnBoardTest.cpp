#include "ComposeBoard.h"

#include <csignal>
#include <thread>

using namespace OnBoard;
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

// --- A project's life ---

TEST_F(ComposeOnBoard, TakesAProjectThroughItsLife) {
    WriteLoopingProject("web.yaml", {"a", "b", "c"});
    const std::vector<std::string> all{"web-a-1", "web-b-1", "web-c-1"};

    EXPECT_EQ(Do(Create, "web.yaml"), Success(1, "created", all, "created"));
    EXPECT_EQ(Output("podman ps -aq | wc -l"), "3");
    EXPECT_EQ(Do(Start, "web.yaml"), Success(0, "started", all, "running"));
    EXPECT_EQ(Output("podman ps -q | wc -l"), "3");
    EXPECT_EQ(Do(Stop, "web.yaml"), Success(0, "stopped", all, "exited"));
    EXPECT_EQ(Output("podman ps -q"), "");
    EXPECT_EQ(Do(Start, " web.yaml\n"), Success(0, "started", all, "running"));
    EXPECT_EQ(Do(Stop, "web.yaml"), Success(0, "stopped", all, "exited"));
    EXPECT_EQ(Do(Remove, "web.yaml"), Success(0, "removed", all, "removing"));
    EXPECT_EQ(Output("podman ps -aq"), "");
}

TEST_F(ComposeOnBoard, ASecondTimeThereIsNothingToDo) {
    WriteLoopingProject("web.yaml", {"a"});

    EXPECT_EQ(Do(Stop, "web.yaml"), NothingDone("stopped"));
    EXPECT_EQ(Do(Remove, "web.yaml"), NothingDone("removed"));
    EXPECT_EQ(Do(Start, "web.yaml"), Result(6, "Error", "service \"a\" has no container to start\n"));
    Do(Create, "web.yaml");
    EXPECT_EQ(Do(Create, "web.yaml"), NothingDone("created"));
    EXPECT_EQ(Do(Stop, "web.yaml"), NothingDone("stopped"));
    Do(Start, "web.yaml");
    EXPECT_EQ(Do(Start, "web.yaml"), NothingDone("started"));
    EXPECT_EQ(Do(Create, "web.yaml"), NothingDone("created"));
    EXPECT_EQ(Do(Remove, "web.yaml"), NothingDone("removed")) << "running containers are not removed";
    Do(Stop, "web.yaml");
    EXPECT_EQ(Do(Stop, "web.yaml"), NothingDone("stopped"));
    Do(Remove, "web.yaml");
    EXPECT_EQ(Do(Remove, "web.yaml"), NothingDone("removed"));
}

TEST_F(ComposeOnBoard, OfAProjectThatPartlyRunsReportsWhatChanged) {
    WriteLoopingProject("web.yaml", {"a", "b", "c"});
    Do(Create, "web.yaml");
    Do(Start, "web.yaml");

    Output("podman stop web-b-1");
    EXPECT_EQ(Do(Start, "web.yaml"), Success(0, "started", {"web-b-1"}, "running"));
    Output("podman stop web-a-1");
    EXPECT_EQ(Do(Remove, "web.yaml"), Success(0, "removed", {"web-a-1"}, "removing"));
    EXPECT_EQ(Do(Create, "web.yaml"), Success(1, "created", {"web-a-1"}, "created"));
    EXPECT_EQ(Do(Stop, "web.yaml"), Success(0, "stopped", {"web-b-1", "web-c-1"}, "exited"));
    EXPECT_EQ(Do(Remove, "web.yaml"), Success(0, "removed", {"web-a-1", "web-b-1", "web-c-1"}, "removing"));
}

TEST_F(ComposeOnBoard, WorksOnTheDefaultBridge) {
    WriteProject("net.yaml",
                 std::string("services:\n  a:\n    image: localhost/busybox:1\n    command: [\"sh\", ") +
                     "\"-c\", \"" + Loop + "\"]\n");

    EXPECT_EQ(Do(Create, "net.yaml"), Success(1, "created", {"net-a-1"}, "created"));
    EXPECT_EQ(Do(Start, "net.yaml"), Success(0, "started", {"net-a-1"}, "running"));
    EXPECT_EQ(Do(Stop, "net.yaml"), Success(0, "stopped", {"net-a-1"}, "exited"));
    EXPECT_EQ(Do(Remove, "net.yaml"), Success(0, "removed", {"net-a-1"}, "removing"));
}

TEST_F(ComposeOnBoard, DoesNotReportAContainerThatEndedBeforeTheSecondLook) {
    WriteProject("web.yaml", "services:\n" + ServiceText("once", "exit 3") + ServiceText("steady", Loop));
    ReplaceTool(
        "case \"$*\" in *' ps '*) while podman ps --format '{{.Names}}' | grep -q once; do sleep 0.1; done;; "
        "esac; "
        "exec $TOOL \"$@\"");
    Do(Create, "web.yaml");

    EXPECT_EQ(Do(Start, "web.yaml"), Success(0, "started", {"web-steady-1"}, "running"));
    EXPECT_EQ(Do(Stop, "web.yaml"), Success(0, "stopped", {"web-steady-1"}, "exited"));
}

TEST_F(ComposeOnBoard, AContainerWithARestartPolicyComesBackUntilItIsStopped) {
    WriteProject("web.yaml", "services:\n" + ServiceText("a", Loop, "    restart: unless-stopped\n"));
    Do(Create, "web.yaml");
    ASSERT_EQ(Do(Start, "web.yaml"), Success(0, "started", {"web-a-1"}, "running"));
    const std::string inspect = "podman inspect --format '{{.State.Pid}}' web-a-1";
    const std::string first = Output(inspect);

    kill(std::stoi(first), SIGKILL);
    ASSERT_TRUE(Eventually([&] {
        const std::string pid = Output(inspect);
        return pid != "0" && pid != first;
    }));

    EXPECT_EQ(Do(Stop, "web.yaml"), Success(0, "stopped", {"web-a-1"}, "exited"));
    EXPECT_EQ(Output("podman ps -q"), "");
}

TEST_F(ComposeOnBoard, TwoProjectsAtOnceGetTheirOwnResults) {
    const auto live = [](const std::string& project, std::vector<std::string>& results) {
        const std::string file = project + ".yaml";
        for (const Operation operation : {Create, Start, Stop, Remove}) {
            results.push_back(Do(operation, file.c_str()));
        }
    };
    const auto expected = [](const std::string& project) {
        const std::vector<std::string> all{project + "-a-1", project + "-b-1"};
        return std::vector<std::string>{
            Success(1, "created", all, "created"), Success(0, "started", all, "running"),
            Success(0, "stopped", all, "exited"), Success(0, "removed", all, "removing")};
    };
    WriteLoopingProject("one.yaml", {"a", "b"});
    WriteLoopingProject("two.yaml", {"a", "b"});
    std::vector<std::string> one;
    std::vector<std::string> two;

    std::thread second([&] { live("two", two); });
    live("one", one);
    second.join();

    EXPECT_EQ(one, expected("one"));
    EXPECT_EQ(two, expected("two"));
}

// --- Files ---

TEST_F(ComposeOnBoard, ReachesFilesOfOtherDirectories) {
    WriteLoopingProject("sub/inner.yaml", {"a"});
    WriteLoopingProject("../outer.yml", {"a"});

    EXPECT_EQ(Do(Create, "sub/inner.yaml"), Success(1, "created", {"inner-a-1"}, "created"));
    EXPECT_EQ(Do(Create, "../outer.yml"), Success(1, "created", {"outer-a-1"}, "created"));
    std::filesystem::remove(COMPOSE_FILES_PATH + "../outer.yml");
}

TEST_F(ComposeOnBoard, FilesWhoseNamesAreNoProjectNamesAreTheToolsError) {
    for (const char* name : {"a b.yaml", "\xc3\xa4.yaml", "Web.yaml", "a.b.yaml"}) {
        WriteLoopingProject(name, {"a"});
        const std::string outcome = Do(Create, name);

        EXPECT_THAT(outcome, StartsWith("6 {\"Status\":\"Error\",\"Message\":\"invalid project name"));
        EXPECT_THAT(outcome, testing::EndsWith(",\"Containers\":[]}"));
    }
}

TEST_F(ComposeOnBoard, DirectoriesExistAndAreTheToolsError) {
    std::filesystem::create_directory(COMPOSE_FILES_PATH + "folder.yaml");

    EXPECT_THAT(Do(Create, "folder.yaml"), AllOf(StartsWith("6 "), HasSubstr("is a directory")));
    EXPECT_THAT(Do(Start, ".."), StartsWith("6 {\"Status\":\"Error\",\"Message\":\""));
}

TEST_F(ComposeOnBoard, FilesThatAreNoProjectsAreTheToolsError) {
    WriteProject("bad.yaml", "{{{not: [yaml\n");
    WriteProject("empty.yaml", "");
    WriteProject("none.yaml", "services: {}\n");

    for (const Operation operation : {Create, Start, Stop, Remove}) {
        EXPECT_THAT(Do(operation, "bad.yaml"),
                    AllOf(StartsWith("6 "), HasSubstr("yaml: line 1: did not find expected")));
        EXPECT_THAT(Do(operation, "empty.yaml"), StartsWith("6 {\"Status\":\"Error\",\"Message\":\"empty"));
    }
    EXPECT_THAT(Do(Create, "none.yaml"), AnyOf(StartsWith("6 "), StartsWith("8 ")));
}

TEST_F(ComposeOnBoard, NamesThatAreNoFilesRunNothing) {
    ReplaceTool("touch /tmp/called");

    EXPECT_EQ(Do(Create, nullptr),
              Result(2, "Error", "Checking compose YAML file failed: file name is uninitialized."));
    EXPECT_EQ(Do(Start, " \n"),
              Result(3, "Error", "Checking compose YAML file failed: no file name is specified."));
    EXPECT_EQ(Do(Stop, " web.yaml "),
              Result(4, "Error",
                     "Checking compose YAML file failed: file '/userstorage1/container_rte/"
                     "utilities/compose-files/web.yaml' is not existing."));
    const std::string tooLong(4096, 'n');
    EXPECT_EQ(Do(Remove, tooLong.c_str()), Result(4, "Error",
                                                  "Checking compose YAML file failed: file '" +
                                                      COMPOSE_FILES_PATH + tooLong + "' is not existing."));
    EXPECT_FALSE(std::filesystem::exists("/tmp/called"));
}

TEST_F(ComposeOnBoard, AnImageThatIsNowhereFailsSoon) {
    WriteProject("web.yaml", "services:\n" + ServiceText("a", Loop, {}, "localhost/missing:1"));
    const auto started = std::chrono::steady_clock::now();

    EXPECT_THAT(Do(Create, "web.yaml"), AllOf(StartsWith("6 "), HasSubstr("Error response from daemon")));

    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(60));
    EXPECT_EQ(Output("podman ps -aq"), "");
}

// --- The tool ---

TEST_F(ComposeWithoutPodman, EveryOperationIsTheToolsError) {
    WriteLoopingProject("web.yaml", {"a"});
    for (const Operation operation : {Create, Start, Stop, Remove}) {
        EXPECT_EQ(
            Do(operation, "web.yaml"),
            Result(6, "Error",
                   "Cannot connect to the Docker daemon at unix:///run/podman/podman.sock. Is the docker "
                   "daemon running?\n"));
    }
}

TEST_F(ComposeOnBoard, WithoutItsToolIsToldAsNotStarted) {
    WriteLoopingProject("web.yaml", {"a"});
    std::filesystem::remove("/bin/docker-compose");

    EXPECT_EQ(Do(Create, "web.yaml"),
              Result(5, "Error", "spawning command failed: No such file or directory"));
}

TEST_F(ComposeOnBoard, AToolThatDiesBeforeItsWorkIsAnErrorAndChangesNothing) {
    WriteLoopingProject("web.yaml", {"a"});
    ReplaceTool("case \"$*\" in *create) printf half >&2; kill -9 $$;; esac; exec $TOOL \"$@\"");

    EXPECT_EQ(Do(Create, "web.yaml"), Result(6, "Error", "command terminated abnormally: half"));
    EXPECT_EQ(Output("podman ps -aq"), "");
}

TEST_F(ComposeOnBoard, AToolThatDiesAfterItsWorkIsAnErrorAndTheNextOperationGoesOn) {
    WriteLoopingProject("web.yaml", {"a"});
    ReplaceTool("case \"$*\" in *create) $TOOL \"$@\"; kill -9 $$;; esac; exec $TOOL \"$@\"");

    EXPECT_EQ(Do(Create, "web.yaml"), Result(6, "Error", "command terminated abnormally: "));
    EXPECT_EQ(Do(Start, "web.yaml"), Success(0, "started", {"web-a-1"}, "running"));
}

TEST_F(ComposeOnBoard, TheRealToolCanBeKilledInTheMiddle) {
    WriteProject("web.yaml",
                 "services:\n" + ServiceText("deaf", "trap '' TERM; touch /deaf; while :; do sleep 0.1; done",
                                             "    stop_grace_period: 5s\n"));
    Do(Create, "web.yaml");
    Do(Start, "web.yaml");
    ASSERT_TRUE(Eventually([] { return Shell("podman exec web-deaf-1 test -e /deaf").status == 0; }));
    std::thread killer([] {
        std::vector<pid_t> tool;
        Eventually([&] { return !(tool = Processes("--progress quiet stop")).empty(); });
        kill(tool.at(0), SIGKILL);
    });

    const std::string outcome = Do(Stop, "web.yaml");
    killer.join();

    EXPECT_EQ(outcome, Result(6, "Error", "command terminated abnormally: "));
    Output("podman kill web-deaf-1 || true");
    ASSERT_TRUE(Eventually([] { return Output("podman ps -q").empty(); }));
    EXPECT_EQ(Do(Remove, "web.yaml"), Success(0, "removed", {"web-deaf-1"}, "removing"));
}

TEST_F(ComposeOnBoard, AnAnswerThatIsNotJsonReachesTheCallerAsTheParseError) {
    WriteLoopingProject("web.yaml", {"a"});
    QxNJson::json result = "old content";
    ReplaceTool("case \"$*\" in *' ps '*) echo NAME IMAGE;; esac");

    EXPECT_THROW(Service().CreateCompose("web.yaml", result), QxNJson::json::parse_error);
    EXPECT_TRUE(result.is_null());
}

TEST_F(ComposeOnBoard, AnAnswerWithoutNamesReachesTheCallerAsTheTypeError) {
    WriteLoopingProject("web.yaml", {"a"});
    QxNJson::json result;
    ReplaceTool("case \"$*\" in *' ps '*) echo '{\"State\":\"running\"}';; esac");

    EXPECT_THROW(Service().StartCompose("web.yaml", result), QxNJson::json::type_error);
}

TEST_F(ComposeOnBoard, TellsTheLogWhatFailed) {
    WriteProject("empty.yaml", "");

    Do(Create, "empty.yaml");

    EXPECT_THAT(LogLines(), Contains("[DEBUG] Quolex Container Service: Execute compose command CREATE..."));
    EXPECT_THAT(
        LogLines(),
        Contains(
            "[DEBUG_VERBOSE] Quolex Container Service:   executing of command failed: "
            "'/bin/docker-compose docker-compose -f "
            "/userstorage1/container_rte/utilities/compose-files/empty.yaml -p empty ps -a --format json'"));
    EXPECT_THAT(Messages(), IsEmpty());
}

}  // namespace
