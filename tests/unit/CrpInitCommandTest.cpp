#include "QxCRPLoader.h"
#include "Recording.h"
#include "Sandbox.h"
#include "crp/InitCommand.h"
#include "tests/crp/CrpTest.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/PluginMaker.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <filesystem>

using CRP::PluginInfo;
using CRP::QxCRPLoader;
using PluginMaker::Record;
using testing::ElementsAre;
namespace fs = std::filesystem;

namespace {

TEST(CrpLoaderMountPoint, KeepsLettersDigitsDashesAndUnderscores) {
    EXPECT_EQ(QxCRPLoader::getMountPoint("my plugin/v2"), "/mnt/crp_my_plugin_v2");
    EXPECT_EQ(QxCRPLoader::getMountPoint("-a_b"), "/mnt/crp_-a_b");
    EXPECT_EQ(QxCRPLoader::getMountPoint("azAZ09"), "/mnt/crp_azAZ09");
    EXPECT_EQ(QxCRPLoader::getMountPoint("../../etc"), "/mnt/crp_______etc");
    EXPECT_EQ(QxCRPLoader::getMountPoint("\xC3\xBC`@[{:/\n"), "/mnt/crp_" + std::string(9, '_'));
    EXPECT_EQ(QxCRPLoader::getMountPoint(std::string("a\0b", 3)), "/mnt/crp_a_b");
    EXPECT_EQ(QxCRPLoader::getMountPoint(""), "/mnt/crp_");
}

struct CommandCase {
    const char* initCommand;
    const char* command;
};

void PrintTo(const CommandCase& value, std::ostream* stream) { *stream << value.command; }

class CrpInitCommand : public testing::TestWithParam<CommandCase> {};

TEST_P(CrpInitCommand, RunsScriptsThroughTheShell) {
    EXPECT_EQ(CRP::initCommandLine("/mnt/crp_x", GetParam().initCommand),
              std::string("cd /mnt/crp_x && ") + GetParam().command);
}

INSTANTIATE_TEST_SUITE_P(
    Prefixes, CrpInitCommand,
    testing::Values(CommandCase{"setup.sh --fast", "sh setup.sh --fast"}, CommandCase{"./run", "sh ./run"},
                    CommandCase{"a.sh", "sh a.sh"}, CommandCase{".sh", "sh .sh"}, CommandCase{".", "sh ."},
                    CommandCase{"../x", "sh ../x"}, CommandCase{"echo hi", "echo hi"},
                    CommandCase{"echo a.sh", "echo a.sh"}, CommandCase{" ./run", " ./run"},
                    CommandCase{"bin/a.sh", "sh bin/a.sh"}, CommandCase{"/bin/a.sh x", "sh /bin/a.sh x"},
                    CommandCase{"a.sh2", "a.sh2"}, CommandCase{"sh", "sh"}, CommandCase{"a.SH", "a.SH"},
                    CommandCase{"a.sh\tx", "a.sh\tx"}));

class CrpLoaderInit : public CrpTest {
protected:
    bool Run(const std::string& initCommand) {
        PluginInfo plugin = Record("x", "1.0.0");
        PluginMaker::SetText(plugin.header.initCommand, initCommand);
        fs::create_directory("/mnt/crp_x");
        return _loader.execInitCommand(plugin, "/mnt/crp_x");
    }

    static std::string LastLog() { return Recording::Logs().back(); }

    QxCRPLoader _loader;
};

TEST_F(CrpLoaderInit, RunsInTheMountPointWithThisProcesssEnvironment) {
    setenv("CRP_TEST", "inherited", 1);

    EXPECT_TRUE(Run("echo $PWD $CRP_TEST > /ran"));

    EXPECT_EQ(Sandbox::ReadFile("/ran"), "/mnt/crp_x inherited\n");
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[INFO] Quolex Container Runtime: Initializing plugin 'x' version '1.0.0'"));
}

TEST_F(CrpLoaderInit, PassesTheCommandToTheShellAsItIs) {
    EXPECT_TRUE(Run("echo 'a  b' \"$0\" > /ran && [ /proc/$$/exe -ef /bin/sh ] # comment"));

    EXPECT_EQ(Sandbox::ReadFile("/ran"), "a  b sh\n");
}

TEST_F(CrpLoaderInit, FailsWhenTheMountPointIsGone) {
    PluginInfo plugin = Record("x", "1.0.0");
    PluginMaker::SetText(plugin.header.initCommand, "touch /ran");

    EXPECT_FALSE(_loader.execInitCommand(plugin, "/mnt/crp_gone"));
    EXPECT_FALSE(fs::exists("/ran"));
}

TEST_F(CrpLoaderInit, FailsForAProgramWithoutExecutePermission) {
    Sandbox::WriteFile("/mnt/crp_x/tool", "");
    chmod("/mnt/crp_x/tool", 0644);

    EXPECT_FALSE(Run("/mnt/crp_x/tool"));
    EXPECT_EQ(
        LastLog(),
        "[ERROR] Quolex Container Runtime: Initializing plugin failed: init command exited with code 126");
}

TEST_F(CrpLoaderInit, MayWriteMuch) {
    const int saved[] = {dup(STDOUT_FILENO), dup(STDERR_FILENO)};
    const int output = open("/run/output", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);

    const bool hasSucceeded = Run("head -c 3000000 /dev/zero; head -c 3000000 /dev/zero >&2");

    dup2(saved[0], STDOUT_FILENO);
    dup2(saved[1], STDERR_FILENO);
    EXPECT_TRUE(hasSucceeded);
    EXPECT_EQ(fs::file_size("/run/output"), 6000000U);
}

TEST_F(CrpLoaderInit, TakesACommandThatFillsItsField) {
    const std::string start = "echo done > /ran #";

    EXPECT_TRUE(Run(start + std::string(384 - start.size(), 'x')));
    EXPECT_EQ(Sandbox::ReadFile("/ran"), "done\n");
}

TEST_F(CrpLoaderInit, ReportsTheExitCodeOrMinusOne) {
    EXPECT_FALSE(Run("exit 255"));
    EXPECT_EQ(
        LastLog(),
        "[ERROR] Quolex Container Runtime: Initializing plugin failed: init command exited with code 255");
    EXPECT_FALSE(Run("kill -TERM $$"));
    EXPECT_EQ(
        LastLog(),
        "[ERROR] Quolex Container Runtime: Initializing plugin failed: init command exited with code -1");
}

TEST_F(CrpLoaderInit, ReportsAShellThatDoesNotStart) {
    FailSystemCall(SYS_execve, EACCES);

    EXPECT_FALSE(Run("true"));
    EXPECT_EQ(LastLog(),
              "[ERROR] Quolex Container Runtime: Initializing plugin failed: posix_spawn('/bin/sh'): "
              "Permission denied");
}

TEST_F(CrpLoaderInit, ReportsAFailedWait) {
    signal(SIGCHLD, SIG_IGN);

    EXPECT_FALSE(Run("true"));
    EXPECT_EQ(LastLog(),
              "[ERROR] Quolex Container Runtime: Initializing plugin failed: waitpid() failed: No child "
              "processes");
}

TEST_F(CrpLoaderInit, DoesNotWaitAgainAfterAnInterruption) {
    constexpr FailingArgument WithoutOptions{2, 0};
    FailSystemCall(SYS_wait4, EINTR, WithoutOptions);

    EXPECT_FALSE(Run("true"));
    EXPECT_EQ(LastLog(),
              "[ERROR] Quolex Container Runtime: Initializing plugin failed: waitpid() failed: Interrupted "
              "system call");
}

}  // namespace
