#include "CtlRun.h"
#include "ScriptedDaemon.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>

using CtlRun::Result;
using CtlRun::RunCtl;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

namespace {

class CtlCompletion : public testing::Test {
protected:
    CtlCompletion() {
        std::filesystem::create_symlink(QXCTL_PROGRAM, "/usr/local/bin/qxctl");
        daemon.On("GET /containers",
                  {200, R"x({"containers":[{"name":"clock"},{"name":"cloud"},{"name":"$(touch /run/evil)"},)x"
                        R"x({"name":"a b"},{"name":"-rf"},{"name":""},{"name":"\u001b[2J"}]})x"});
        daemon.On(
            "GET /images",
            {200, R"({"images":[{"names":["localhost/busybox:1","localhost/busybox:2"]},{"names":[]}]})"});
        daemon.On("GET /projects", {200, R"({"projects":[{"file":"demo.yaml"}]})"});
        daemon.On("GET /plugins", {200, R"({"plugins":[{"fileName":"network.crp"}]})"});
        daemon.On("GET /tokens", {200, R"({"tokens":[{"name":"panel"}]})"});
        Sandbox::WriteFile("/run/work/archive.tar", "");
    }

    /// Runs a shell with a script.
    /// @return the lines that it printed
    static std::vector<std::string> Shell(const std::string& command, const std::string& script) {
        Sandbox::WriteFile("/run/script", script);
        const int status = std::system(
            ("cd /run/work && HOME=/run " + command + " /run/script >/run/shell.out 2>/run/shell.err")
                .c_str());
        EXPECT_EQ(status, 0);
        EXPECT_EQ(Sandbox::ReadFile("/run/shell.err"), "");
        std::vector<std::string> lines;
        std::istringstream output(Sandbox::ReadFile("/run/shell.out"));
        for (std::string line; std::getline(output, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    static bool IsInstalled(const char* shell) {
        return std::filesystem::exists(std::string("/usr/bin/") + shell);
    }

    ScriptedDaemon daemon;
};

TEST_F(CtlCompletion, PrintsNames) {
    EXPECT_EQ(RunCtl({"__complete", "containers"}).output, "clock\ncloud\n");
    EXPECT_EQ(RunCtl({"__complete", "images"}).output, "localhost/busybox:1\nlocalhost/busybox:2\n");
    EXPECT_EQ(RunCtl({"__complete", "projects"}).output, "demo.yaml\n");
    EXPECT_EQ(RunCtl({"__complete", "plugins"}).output, "network.crp\n");
    EXPECT_EQ(RunCtl({"__complete", "tokens"}).output, "panel\n");
    EXPECT_EQ(RunCtl({"__complete", "weather"}).output, "");
}

TEST_F(CtlCompletion, IsSilentWhenItFails) {
    daemon.On("GET /containers", ScriptedDaemon::Problem(503, "x"));
    daemon.On("GET /plugins", {200, "no JSON"});
    daemon.On("GET /tokens", {200, R"({"tokens":[]})", "application/json", 5000});

    for (const CtlRun::Arguments& arguments : {CtlRun::Arguments{"__complete", "containers"},
                                               {"__complete", "plugins"},
                                               {"__complete", "tokens"},
                                               {"--socket", "/run/none", "__complete", "plugins"},
                                               {"--address", "x", "__complete", "plugins"}}) {
        const Result result = RunCtl(arguments);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.errors, "");
    }
}

class CtlBash : public CtlCompletion {
protected:
    /// @return what bash would offer for a line
    static std::vector<std::string> Offers(const std::string& line) {
        Sandbox::WriteFile("/run/line", line);
        return Shell(
            "bash --norc",
            "source <(qxctl completion bash)\n"
            "complete -p qxctl >/dev/null || exit 1\n"
            "COMP_LINE=$(cat /run/line; echo .); COMP_LINE=${COMP_LINE%.}; COMP_POINT=${#COMP_LINE}\n"
            "_qxctl qxctl\n"
            "[ ${#COMPREPLY[@]} = 0 ] || printf '%s\\n' \"${COMPREPLY[@]}\"\n");
    }
};

TEST_F(CtlBash, OffersCommands) {
    EXPECT_THAT(Offers("qxctl "), IsSupersetOf({"status", "ps", "compose", "completion"}));
    EXPECT_THAT(Offers("qxctl "), Not(Contains("__complete")));
    EXPECT_THAT(Offers("qxctl sta"), ElementsAre("status", "start"));
    EXPECT_THAT(Offers("qxctl compose "), IsSupersetOf({"ls", "edit", "rm-file"}));
    EXPECT_THAT(Offers("qxctl --json container re"), ElementsAre("restart"));
    EXPECT_THAT(Offers("qxctl status "), ElementsAre());
}

TEST_F(CtlBash, OffersOptions) {
    EXPECT_THAT(Offers("qxctl logs --f"), ElementsAre("--follow"));
    EXPECT_THAT(Offers("qxctl logs --s"), ElementsAre("--stdout", "--stderr", "--socket"));
    EXPECT_THAT(Offers("qxctl -"), IsSupersetOf({"--help", "--json", "--version"}));
}

TEST_F(CtlBash, OffersNames) {
    EXPECT_THAT(Offers("qxctl inspect "), ElementsAre("clock", "cloud"));
    EXPECT_THAT(Offers("qxctl logs -f --tail 5 cloc"), ElementsAre("clock"));
    EXPECT_THAT(Offers("qxctl container stop c"), ElementsAre("clock", "cloud"));
    EXPECT_THAT(Offers("qxctl compose start "), ElementsAre("demo.yaml"));
    EXPECT_THAT(Offers("qxctl plugin rm n"), ElementsAre("network.crp"));
    EXPECT_THAT(Offers("qxctl token rm "), ElementsAre("panel"));
    EXPECT_THAT(Offers("qxctl completion "), ElementsAre("bash", "zsh", "fish"));
    EXPECT_FALSE(std::filesystem::exists("/run/evil"));
}

TEST_F(CtlBash, OffersNamesWithColons) {
    EXPECT_THAT(Offers("qxctl rmi local"), ElementsAre("localhost/busybox:1", "localhost/busybox:2"));
    // For bash the word is what comes after the colon.
    EXPECT_THAT(Offers("qxctl rmi localhost/busybox:"), ElementsAre("1", "2"));
    EXPECT_THAT(Offers("qxctl rmi localhost/busybox:2"), ElementsAre("2"));
}

TEST_F(CtlBash, OffersFiles) {
    EXPECT_THAT(Offers("qxctl load ar"), ElementsAre("archive.tar"));
    EXPECT_THAT(Offers("qxctl --ca ar"), ElementsAre("archive.tar"));
    EXPECT_THAT(Offers("qxctl logs --tail "), ElementsAre());
}

TEST_F(CtlBash, AsksTheDaemonThatIsMeant) {
    std::filesystem::rename(ScriptedDaemon::Socket, "/run/elsewhere");

    EXPECT_THAT(Offers("qxctl inspect "), ElementsAre());
    EXPECT_THAT(Offers("qxctl --socket /run/elsewhere inspect "), ElementsAre("clock", "cloud"));
}

class CtlZsh : public CtlCompletion {
protected:
    void SetUp() override {
        if (!IsInstalled("zsh")) {
            GTEST_SKIP() << "cannot run here: zsh is not installed";
        }
    }

    /// @param words  the last one is to be completed
    /// @return what the script tells zsh
    static std::vector<std::string> Offers(const std::string& words) {
        return Shell("zsh -f",
                     "compdef() { [[ $* == '_qxctl qxctl' ]] || exit 1 }\n"
                     "_describe() { print -l -- ${(P)@[-1]} }\n"
                     "compadd() { print -l -- ${(P)@[-1]} }\n"
                     "_files() { print files }\n"
                     "source <(qxctl completion zsh)\n"
                     "words=(" +
                         words + ") CURRENT=$#words\n_qxctl\n");
    }
};

TEST_F(CtlZsh, OffersWhatThereIs) {
    EXPECT_THAT(Offers("qxctl ''"),
                IsSupersetOf({"status:Tell how the container service is doing", "ps:List all containers"}));
    EXPECT_THAT(Offers("qxctl compose ''"), Contains(HasSubstr("rm-file:Delete a compose file")));
    EXPECT_THAT(Offers("qxctl logs --f"), Contains(HasSubstr("--follow:Go on")));
    EXPECT_THAT(Offers("qxctl --json inspect ''"), ElementsAre("clock", "cloud"));
    EXPECT_THAT(Offers("qxctl logs --tail 5 ''"), ElementsAre("clock", "cloud"));
    EXPECT_THAT(Offers("qxctl rmi ''"), ElementsAre("localhost/busybox:1", "localhost/busybox:2"));
    EXPECT_THAT(Offers("qxctl load ''"), ElementsAre("files"));
    EXPECT_THAT(Offers("qxctl --socket ''"), ElementsAre("files"));
    EXPECT_THAT(Offers("qxctl --socket /run/none inspect ''"),
                testing::AnyOf(ElementsAre(), ElementsAre("")));
}

class CtlFish : public CtlCompletion {
protected:
    void SetUp() override {
        if (!IsInstalled("fish")) {
            GTEST_SKIP() << "cannot run here: fish is not installed";
        }
    }

    /// @return what fish would offer for a line, without descriptions
    static std::vector<std::string> Offers(const std::string& line) {
        std::vector<std::string> offers =
            Shell("fish --no-config", "qxctl completion fish | source\ncomplete -C '" + line + "'\n");
        for (std::string& offer : offers) {
            offer.erase(std::min(offer.size(), offer.find('\t')));
        }
        return offers;
    }
};

TEST_F(CtlFish, OffersWhatThereIs) {
    EXPECT_THAT(Offers("qxctl "), IsSupersetOf({"status", "ps", "compose"}));
    EXPECT_THAT(Offers("qxctl compose sta"), ElementsAre("start"));
    EXPECT_THAT(Offers("qxctl logs --fo"), ElementsAre("--follow"));
    EXPECT_THAT(Offers("qxctl logs --js"), ElementsAre("--json"));
    EXPECT_THAT(Offers("qxctl --json inspect "), ElementsAre("clock", "cloud"));
    EXPECT_THAT(Offers("qxctl logs --tail 5 clou"), ElementsAre("cloud"));
    EXPECT_THAT(Offers("qxctl rmi "), ElementsAre("localhost/busybox:1", "localhost/busybox:2"));
    EXPECT_THAT(Offers("qxctl load arch"), ElementsAre("archive.tar"));
    EXPECT_THAT(Offers("qxctl --socket /run/none inspect "), ElementsAre());
}

TEST_F(CtlCompletion, KnowsNoOtherShells) { EXPECT_EQ(RunCtl({"completion", "csh"}).exitCode, 2); }

}  // namespace
