#include "CtlRun.h"
#include "ScriptedDaemon.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <filesystem>

using CtlRun::Result;
using CtlRun::RunCtl;
using CtlRun::RunOnTerminal;
using testing::HasSubstr;

namespace {

class CtlCompose : public testing::Test {
protected:
    ScriptedDaemon daemon;
};

TEST_F(CtlCompose, ListsProjects) {
    daemon.On("GET /projects",
              {200, R"({"projects":[{"file":"demo.yaml","name":"demo","state":"partly","containers":)"
                    R"([{"name":"demo-web-1","state":"running"},{"name":"demo-db-1","state":"exited"}]},)"
                    R"({"file":"x.yml","name":"x","state":"none","containers":[]}]})"});

    EXPECT_EQ(RunCtl({"compose", "ls"}).output,
              "FILE       PROJECT  STATE   RUNNING\n"
              "demo.yaml  demo     partly  1 of 2\n"
              "x.yml      x        none    -\n");
}

TEST_F(CtlCompose, ShowsAFileAsItIs) {
    daemon.On("GET /compose-files/demo.yaml", {200, "a: 1\r\nb: \x1b[2J", "application/yaml"});

    EXPECT_EQ(RunCtl({"compose", "cat", "demo.yaml"}).output, "a: 1\r\nb: \x1b[2J");
    EXPECT_THAT(RunOnTerminal({"compose", "cat", "demo.yaml"}).output, HasSubstr("b: \uFFFD[2J\n"));
}

TEST_F(CtlCompose, PutsFiles) {
    Sandbox::WriteFile("/run/work/demo.yaml", "services: {}\n");
    daemon.On("PUT /compose-files/demo.yaml", {201, ""});
    daemon.On("PUT /compose-files/other.yaml", {204, ""});

    EXPECT_EQ(RunCtl({"compose", "put", "/run/work/demo.yaml"}).output, "demo.yaml made\n");
    EXPECT_EQ(daemon.Requests().back().Text(), "PUT /compose-files/demo.yaml services: {}\n");
    EXPECT_EQ(daemon.Requests().back().contentType, "application/yaml");
    EXPECT_EQ(RunCtl({"compose", "put", "--as", "other.yaml", "/run/work/demo.yaml"}).output,
              "other.yaml replaced\n");
    EXPECT_EQ(RunCtl({"compose", "put", "--as", "other.yaml", "-"}, {{}, "a: b"}).exitCode, 0);
    EXPECT_EQ(daemon.Requests().back().body, "a: b");
}

TEST_F(CtlCompose, PutsNothingThatCannotBe) {
    Sandbox::WriteFile("/run/large.yaml", std::string((1 << 20) + 1, '#'));
    Sandbox::WriteFile("/run/largest.yaml", std::string(1 << 20, '#'));
    daemon.On("PUT /compose-files/largest.yaml", {201, ""});

    EXPECT_EQ(RunCtl({"compose", "put", "/run/none.yaml"}).exitCode, 1);
    EXPECT_EQ(RunCtl({"compose", "put", "/run"}).exitCode, 1);
    EXPECT_EQ(RunCtl({"compose", "put", "-"}).exitCode, 2);
    EXPECT_THAT(RunCtl({"compose", "put", "/run/large.yaml"}).errors, HasSubstr("more than 1048576 bytes"));
    EXPECT_EQ(daemon.Log(), "");
    EXPECT_EQ(RunCtl({"compose", "put", "/run/largest.yaml"}).exitCode, 0);
}

TEST_F(CtlCompose, DeletesAFile) {
    daemon.On("DELETE /compose-files/demo.yaml", {204, ""});

    EXPECT_EQ(RunCtl({"compose", "rm-file", "demo.yaml"}).output, "demo.yaml deleted\n");
    EXPECT_EQ(RunCtl({"compose", "rm-file", "none.yaml"}).exitCode, 5);
}

TEST_F(CtlCompose, ChecksAFile) {
    Sandbox::WriteFile("/run/demo.yaml", "services: {}\n");
    daemon.On("POST /compose-files/check?file=demo.yaml", {200, R"({"valid":true,"output":""})"});

    const Result good = RunCtl({"compose", "check", "/run/demo.yaml"});
    EXPECT_EQ(good.exitCode, 0);
    EXPECT_EQ(good.output, "/run/demo.yaml is a project\n");
    EXPECT_EQ(daemon.Log(), "POST /compose-files/check?file=demo.yaml services: {}\n\n");

    daemon.On("POST /compose-files/check", {200, R"({"valid":false,"output":"line 1: no\nservices"})"});
    const Result bad = RunCtl({"compose", "check", "-"}, {{}, "x"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.output, "line 1: no\nservices\n- is no project\n");
    EXPECT_EQ(RunCtl({"compose", "check", "--json", "-"}).exitCode, 1);
    // It could not be kept under such a name, which is not what was asked.
    Sandbox::WriteFile("/run/my demo.yaml", "services: {}\n");
    EXPECT_EQ(RunCtl({"compose", "check", "/run/my demo.yaml"}).exitCode, 1);
}

/// The daemon keeps names of up to 128 characters.
TEST_F(CtlCompose, ChecksAFileOfAnyName) {
    const std::string longest = std::string(123, 'a') + ".yaml";
    const std::string tooLong = "a" + longest;
    daemon.On("POST /compose-files/check?file=" + longest, {200, R"({"valid":true,"output":""})"});
    daemon.On("POST /compose-files/check", {200, R"({"valid":true,"output":""})"});
    for (const std::string& name : {longest, tooLong}) {
        Sandbox::WriteFile("/run/" + name, "x");
        EXPECT_EQ(RunCtl({"compose", "check", "/run/" + name}).output, "/run/" + name + " is a project\n");
    }
    EXPECT_EQ(daemon.Log(),
              "POST /compose-files/check?file=" + longest + " x\nPOST /compose-files/check x\n");
}

TEST_F(CtlCompose, ChecksAFileOfTheBoard) {
    daemon.On("GET /compose-files/demo.yaml", {200, "kept", "application/yaml"});
    daemon.On("POST /compose-files/check?file=demo.yaml", {200, R"({"valid":true,"output":""})"});

    EXPECT_EQ(RunCtl({"compose", "check", "--stored", "demo.yaml"}).exitCode, 0);
    EXPECT_EQ(daemon.Log(), "GET /compose-files/demo.yaml\nPOST /compose-files/check?file=demo.yaml kept\n");
}

TEST_F(CtlCompose, TakesAProjectThroughItsOperations) {
    for (const auto& [command, operation] : {std::pair("create", "create"), std::pair("start", "start"),
                                             std::pair("stop", "stop"), std::pair("rm", "remove")}) {
        const std::string target = std::string("POST /projects/demo.yaml/") + operation;
        daemon.On(target, {200, R"({"code":0,"ok":true,"result":{"Status":"Success","Message":"Done so.",)"
                                R"("Containers":[{"Name":"demo-web-1","State":"running"}]}})"});

        const Result result = RunCtl({"compose", command, "demo.yaml"});

        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.output,
                  "demo.yaml: Done so.\n"
                  "CONTAINER   STATE\n"
                  "demo-web-1  running\n");
        EXPECT_EQ(daemon.Requests().back().Text(), target);
    }
}

TEST_F(CtlCompose, SaysWhyAnOperationFailed) {
    daemon.On("POST /projects/demo.yaml/start",
              {200, R"({"code":6,"ok":false,"result":{"Status":"Error","Message":"port in use\nsee log",)"
                    R"("Containers":[{"Name":"demo-db-1","State":"running"}]}})"});

    const Result result = RunCtl({"compose", "start", "demo.yaml"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "qxctl: demo.yaml: port in use\nsee log\n");
    EXPECT_EQ(result.output, "CONTAINER  STATE\ndemo-db-1  running\n");
    EXPECT_EQ(RunCtl({"compose", "start", "demo.yaml", "--json"}).exitCode, 1);
}

TEST_F(CtlCompose, ExplainsTheCodeWhenThereIsNoMessage) {
    daemon.On("POST /projects/demo.yaml/stop", {200, R"({"code":5,"ok":false,"result":null})"});
    daemon.On("POST /projects/demo.yaml/start", {200, R"({"code":7,"ok":true,"result":null})"});
    daemon.On("POST /projects/demo.yaml/create", {200, R"({"code":4,"ok":false,"result":null})"});

    const Result missing = RunCtl({"compose", "create", "demo.yaml"});
    EXPECT_EQ(missing.errors, "qxctl: demo.yaml: there is no such file\n");
    EXPECT_EQ(missing.exitCode, 5);

    EXPECT_EQ(RunCtl({"compose", "stop", "demo.yaml"}).errors,
              "qxctl: demo.yaml: the compose tool could not be started\n");
    EXPECT_EQ(RunCtl({"compose", "start", "demo.yaml"}).output, "demo.yaml: done\n");
}

TEST_F(CtlCompose, ShowsOnATerminalThatItWorks) {
    daemon.On("POST /projects/demo.yaml/start",
              {200, R"({"code":0,"ok":true,"result":null})", "application/json", 300});

    EXPECT_THAT(RunOnTerminal({"compose", "start", "demo.yaml"}).output,
                testing::AllOf(HasSubstr("Starting demo.yaml  0 s"), HasSubstr("\r\x1b[Kdemo.yaml: done\n")));
}

/// An editor that the tests script.
class CtlComposeEdit : public CtlCompose {
protected:
    Result Edit(const std::string& script, const std::string& name = "demo.yaml") {
        Sandbox::WriteFile("/run/editor",
                           "#!/bin/sh\ncp \"$1\" /run/seen\necho \"$1\" > /run/path\n" + script);
        chmod("/run/editor", 0700);
        return RunCtl({"compose", "edit", name}, {{{"EDITOR", "/run/editor"}}, ""});
    }

    static std::string TemporaryFile() {
        const std::string path = Sandbox::ReadFile("/run/path");
        return path.substr(0, path.size() - 1);
    }
};

TEST_F(CtlComposeEdit, StoresWhatWasChanged) {
    daemon.On("GET /compose-files/demo.yaml", {200, "a: 1\n", "application/yaml"});
    daemon.On("PUT /compose-files/demo.yaml", {204, ""});

    const Result result = Edit("echo 'a: 2' > \"$1\"");

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "demo.yaml replaced\n");
    EXPECT_EQ(Sandbox::ReadFile("/run/seen"), "a: 1\n");
    EXPECT_EQ(daemon.Requests().back().Text(), "PUT /compose-files/demo.yaml a: 2\n");
    EXPECT_THAT(TemporaryFile(), testing::EndsWith(".yaml"));
    EXPECT_FALSE(std::filesystem::exists(TemporaryFile()));
}

TEST_F(CtlComposeEdit, MakesAFile) {
    daemon.On("PUT /compose-files/demo.yaml", {201, ""});

    EXPECT_EQ(Edit("echo new > \"$1\"").output, "demo.yaml made\n");
}

TEST_F(CtlComposeEdit, StoresNothingWhenNothingChanged) {
    daemon.On("GET /compose-files/demo.yaml", {200, "a: 1\n", "application/yaml"});

    const Result same = Edit("true");
    EXPECT_EQ(same.exitCode, 0);
    EXPECT_EQ(same.errors, "qxctl: nothing was changed\n");
    const Result failed = Edit("echo x > \"$1\"; exit 1");
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(TemporaryFile()));
    EXPECT_EQ(daemon.Requests().size(), 2U);
}

TEST_F(CtlComposeEdit, KeepsATextThatCouldNotBeStored) {
    daemon.On("GET /compose-files/demo.yaml", {200, "a: 1\n", "application/yaml"});
    daemon.On("PUT /compose-files/demo.yaml", ScriptedDaemon::Problem(507, "There is no room"));

    const Result result = Edit("echo precious > \"$1\"");

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "qxctl: There is no room\nYour text is in " + TemporaryFile() + "\n");
    EXPECT_EQ(Sandbox::ReadFile(TemporaryFile()), "precious\n");
}

TEST_F(CtlComposeEdit, DoesNotOverwriteWhatSomebodyElseWrote) {
    daemon.On("GET /compose-files/demo.yaml", {200, "a: 1\n", "application/yaml"});
    daemon.On("PUT /compose-files/demo.yaml", {204, ""});
    Sandbox::WriteFile(
        "/run/editor",
        "#!/bin/sh\necho mine > \"$1\"\ntouch /run/waits\nuntil [ -e /run/go ]; do sleep 0.01; done");
    chmod("/run/editor", 0700);
    const pid_t tool = CtlRun::Start({"compose", "edit", "demo.yaml"}, {{{"EDITOR", "/run/editor"}}, ""});
    ASSERT_TRUE(Sandbox::Eventually([] { return std::filesystem::exists("/run/waits"); }));
    daemon.On("GET /compose-files/demo.yaml", {200, "theirs", "application/yaml"});
    Sandbox::WriteFile("/run/go", "");

    const Result result = CtlRun::Finish(tool);

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.errors, HasSubstr("changed by somebody else"));
    EXPECT_THAT(result.errors, HasSubstr("Your text is in /tmp/qxctl-"));
}

}  // namespace
