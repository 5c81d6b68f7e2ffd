#include "CtlRun.h"
#include "ScriptedDaemon.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

using CtlRun::Result;
using CtlRun::RunCtl;
using CtlRun::RunOnTerminal;
using testing::HasSubstr;

namespace {

struct Listed {
    std::string file;
    bool isCompatible = true;
    int type = 1;
    bool isDeactivated = false;
    bool isDeactivatedNext = false;
    bool isLoaded = false;
};

std::string Json(const Listed& plugin) {
    const auto text = [](bool value) { return value ? "true" : "false"; };
    return R"({"fileName":")" + plugin.file + R"(","path":"/p/)" + plugin.file +
           R"(","directory":"user","name":"network","version":"1.0.0","compatibleOs":"-rt","initPriority":10,)"
           R"("size":2048,"created":1600000000,"osCompatible":)" +
           text(plugin.isCompatible) + R"(,"pluginType":)" + std::to_string(plugin.type) +
           R"(,"isDeactivated":)" + text(plugin.isDeactivated) + R"(,"deactivatedNext":)" +
           text(plugin.isDeactivatedNext) + R"(,"isLoaded":)" + text(plugin.isLoaded) + "}";
}

std::string ListOf(const std::vector<Listed>& plugins) {
    std::string list;
    for (const Listed& plugin : plugins) {
        list += (list.empty() ? "" : ",") + Json(plugin);
    }
    return R"({"plugins":[)" + list + "]}";
}

const std::string Plugins = ListOf({
    {.file = "a.crp", .isLoaded = true},
    {.file = "b.crp", .isDeactivated = true, .isDeactivatedNext = true},
    {.file = "c.crp", .isCompatible = false},
    {.file = "d.crp", .type = 7},
    {.file = "e.crp"},
    {.file = "f.crp", .isDeactivatedNext = true, .isLoaded = true},
    {.file = "g.crp", .isDeactivated = true},
});

constexpr const char* PluginsTable =
    "FILE   NAME     VERSION  PRIORITY  DIRECTORY     SIZE  STATE\n"
    "a.crp  network  1.0.0          10  user       2.0 KiB  loaded\n"
    "b.crp  network  1.0.0          10  user       2.0 KiB  deactivated\n"
    "c.crp  network  1.0.0          10  user       2.0 KiB  for OS release -rt\n"
    "d.crp  network  1.0.0          10  user       2.0 KiB  of unknown type 7\n"
    "e.crp  network  1.0.0          10  user       2.0 KiB  not loaded\n"
    "f.crp  network  1.0.0          10  user       2.0 KiB  loaded, off from the next start\n"
    "g.crp  network  1.0.0          10  user       2.0 KiB  deactivated, on from the next start\n";

class CtlPlugins : public testing::Test {
protected:
    ScriptedDaemon daemon;
};

TEST_F(CtlPlugins, ListsThem) {
    daemon.On("GET /plugins", {200, Plugins});

    EXPECT_EQ(RunCtl({"plugins"}).output, PluginsTable);
    EXPECT_EQ(RunCtl({"plugins", "--json"}).output, Plugins + "\n");
}

TEST_F(CtlPlugins, LooksAgain) {
    daemon.On("POST /plugins/rescan", {200, Plugins});

    EXPECT_EQ(RunCtl({"plugin", "rescan"}).output, PluginsTable);
}

TEST_F(CtlPlugins, AddsOne) {
    Sandbox::WriteFile("/run/n.crp", "content");
    daemon.On("PUT /plugins/n.crp", {201, ""});
    daemon.On("PUT /plugins/other.crp", {204, ""});

    const Result result = RunCtl({"plugin", "add", "/run/n.crp"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "n.crp added; it is loaded at the next start of the daemon\n");
    EXPECT_EQ(daemon.Log(), "PUT /plugins/n.crp content\n");
    EXPECT_EQ(daemon.Requests().at(0).contentType, "application/octet-stream");
    EXPECT_EQ(RunCtl({"plugin", "add", "--as", "other.crp", "/run/n.crp"}).output,
              "other.crp replaced; it is loaded at the next start of the daemon\n");
    EXPECT_EQ(RunCtl({"plugin", "add", "/run/none.crp"}).exitCode, 1);
}

TEST_F(CtlPlugins, ShowsOnATerminalHowAnUploadGoesOn) {
    Sandbox::WriteFile("/run/n.crp", std::string(20'000'000, 'x'));
    daemon.On("PUT /plugins/n.crp", {201, "", "", 300});

    EXPECT_THAT(RunOnTerminal({"plugin", "add", "/run/n.crp"}).output, HasSubstr("Sending /run/n.crp ["));
}

TEST_F(CtlPlugins, SaysWhyAFileWasRefused) {
    Sandbox::WriteFile("/run/n.crp", "content");
    daemon.On("PUT /plugins/n.crp", ScriptedDaemon::Problem(422, "This is no plugin file"));

    const Result result = RunCtl({"plugin", "add", "/run/n.crp"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, "qxctl: This is no plugin file\n");
}

TEST_F(CtlPlugins, RemovesAndSwitchesThem) {
    daemon.On("DELETE /plugins/n.crp", {204, ""});
    daemon.On("POST /plugins/n.crp/activate", {204, ""});
    daemon.On("POST /plugins/n.crp/deactivate", {204, ""});

    EXPECT_EQ(RunCtl({"plugin", "rm", "n.crp"}).output, "n.crp deleted\n");
    EXPECT_EQ(RunCtl({"plugin", "activate", "n.crp"}).output,
              "n.crp activated; in effect after the next start of the daemon\n");
    EXPECT_EQ(RunCtl({"plugin", "deactivate", "n.crp"}).output,
              "n.crp deactivated; in effect after the next start of the daemon\n");
    daemon.On("POST /plugins/n.crp/deactivate?directory=system", {204, ""});
    EXPECT_EQ(RunCtl({"plugin", "deactivate", "--system", "n.crp"}).exitCode, 0);
    EXPECT_EQ(daemon.Log(),
              "DELETE /plugins/n.crp\nPOST /plugins/n.crp/activate\nPOST /plugins/n.crp/deactivate\n"
              "POST /plugins/n.crp/deactivate?directory=system\n");
}

TEST_F(CtlPlugins, MakesTokens) {
    daemon.On("POST /tokens", {201, R"({"token":"s3cret"})"});

    const Result result = RunCtl({"token", "create", "panel"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "s3cret\n");
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(daemon.Requests().back().body, R"({"name":"panel","right":"look"})");
    EXPECT_EQ(RunCtl({"token", "create", "--act", "operator", "--json"}).output, "{\"token\":\"s3cret\"}\n");
    EXPECT_EQ(daemon.Requests().back().body, R"({"name":"operator","right":"act"})");
    EXPECT_THAT(RunOnTerminal({"token", "create", "panel"}).output,
                HasSubstr("s3cret\nqxctl: keep it: it is not shown again\n"));
}

TEST_F(CtlPlugins, ListsAndRemovesTokens) {
    daemon.On("GET /tokens",
              {200, R"({"tokens":[{"name":"operator","right":"act","created":"2021-11-21T19:00:00Z"}]})"});
    daemon.On("DELETE /tokens/operator", {204, ""});

    EXPECT_EQ(RunCtl({"token", "ls"}).output,
              "NAME      RIGHT  CREATED\n"
              "operator  act    2021-11-21 19:00:00\n");
    EXPECT_EQ(RunCtl({"token", "rm", "operator"}).output, "operator removed\n");
    EXPECT_EQ(RunCtl({"token", "rm", "none"}).exitCode, 5);
}

}  // namespace
