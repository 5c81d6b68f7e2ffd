#include "Sandbox.h"
#include "crp/PluginFile.h"
#include "tests/crp/LoopDevices.h"
#include "tests/crp/PluginMaker.h"
#include "tests/crp/ToolRun.h"

#include <gmock/gmock.h>

#include <pty.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <array>
#include <csignal>
#include <filesystem>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using ToolRun::Result;
using ToolRun::RunTool;
namespace fs = std::filesystem;

namespace {

constexpr const char* Output = "/out/plugin.crp";

/// The directory /out for results and the directory /content with something to pack.
class CrpPack : public testing::Test {
protected:
    CrpPack() {
        fs::create_directory("/out");
        Sandbox::WriteFile("/content/setup.sh", "echo set up\n");
        Sandbox::WriteFile("/content/bin/tool", std::string(100000, 't'));
        fs::create_symlink("tool", "/content/bin/link");
    }

    static std::vector<std::string> Arguments(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"pack", "--name", "tool", "--version", "1.2.3", "-o", Output};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    /// Packs /content with these names and values in place of the usual ones.
    static Result PackWith(const std::string& name, const std::string& version,
                           const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"pack", "--name", name,    "--version", version,
                                           "-o",   Output,   "--dir", "/content"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return RunTool(arguments);
    }

    /// @return the names in /out
    static std::vector<std::string> Results() {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator("/out")) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    static void ExpectRefused(const Result& result, int exitCode, const std::string& text) {
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_THAT(result.errors, HasSubstr(text));
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(Results(), IsEmpty());
    }

    static void MakeImage() { Sandbox::WriteFile("/image", PluginMaker::ImageOf("/content")); }
};

TEST_F(CrpPack, MakesAPluginWhoseImageMountsWithTheDirectorysContent) {
    const Result result = RunTool(Arguments({"--dir", "/content"}));
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_THAT(Results(), ElementsAre("plugin.crp"));
    CrpPluginHeader trailer{};
    ASSERT_EQ(CRP::readPluginFile(Output, trailer), CRP::PluginFileStatus::Plugin);
    EXPECT_EQ(fs::file_size(Output), trailer.imageSize + 2048);
    struct stat status {};
    stat(Output, &status);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);

    fs::create_directory("/mnt/check");
    const std::string command =
        "mount -t squashfs -o ro,loop,sizelimit=" + std::to_string(trailer.imageSize) + " " + Output +
        " /mnt/check && diff -r --no-dereference /content /mnt/check >&2";
    EXPECT_EQ(std::system(command.c_str()), 0);
    EXPECT_EQ(umount("/mnt/check"), 0);
}

TEST_F(CrpPack, MakesAPluginOfAFinishedImage) {
    MakeImage();

    const Result result = RunTool(Arguments({"--image", "/image"}));

    ASSERT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(Sandbox::ReadFile(Output).substr(0, fs::file_size("/image")), Sandbox::ReadFile("/image"));
}

TEST_F(CrpPack, SetsEveryFieldAndLeavesEveryOtherByteZero) {
    MakeImage();

    ASSERT_EQ(RunTool(Arguments({"--image", "/image", "--os", "-rt", "--init", "./run now", "--priority",
                                 "4294967295", "--type", "1"}))
                  .exitCode,
              0);

    CrpPluginHeader expected = PluginMaker::Trailer("tool", "1.2.3", "-rt");
    PluginMaker::SetText(expected.initCommand, "./run now");
    expected.initPriority = 4294967295;
    expected.imageSize = fs::file_size("/image");
    const std::string file = Sandbox::ReadFile(Output);
    EXPECT_EQ(file.substr(file.size() - 2048), PluginMaker::Bytes(expected));
}

TEST_F(CrpPack, PadsAnImageToWholePagesWithZeros) {
    MakeImage();
    const std::string image = Sandbox::ReadFile("/image") + "odd";
    Sandbox::WriteFile("/image", image);

    const Result result = RunTool(Arguments({"--image", "/image", "--json"}));

    const auto imageSize = result.Json()["imageSize"].get<std::size_t>();
    EXPECT_EQ(imageSize % 4096, 0U);
    EXPECT_EQ(Sandbox::ReadFile(Output).substr(0, imageSize),
              image + std::string(imageSize - image.size(), '\0'));
}

TEST_F(CrpPack, TellsItsResultAsJson) {
    const Result result = RunTool(Arguments({"--dir", "/content", "--init", "setup.sh", "--json"}));

    EXPECT_EQ(result.errors, "");
    QxNJson::json json = result.Json();
    EXPECT_EQ(json["file"], Output);
    EXPECT_EQ(json["name"], "tool");
    EXPECT_EQ(json["version"], "1.2.3");
    EXPECT_EQ(json["initCommand"], "setup.sh");
    EXPECT_EQ(json["fileSize"], fs::file_size(Output));
    EXPECT_EQ(json["mountPoint"], "/mnt/crp_tool");
    EXPECT_TRUE(json["warnings"].empty());
}

TEST_F(CrpPack, SaysOneLineWhenNobodyWatches) {
    const Result result = RunTool(Arguments({"--dir", "/content"}));

    EXPECT_THAT(result.output, StartsWith("packed \"tool\" version \"1.2.3\" into \"/out/plugin.crp\": "));
    EXPECT_EQ(result.errors, "");
}

/// Runs the tool with its standard error on a terminal.
/// @return what the terminal shows
std::string ShownOnATerminal(const std::vector<std::string>& arguments) {
    int terminal = -1;
    const pid_t tool = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (tool == 0) {
        ToolRun::WriteInto(ToolRun::OutputFile, STDOUT_FILENO);
        ToolRun::Become(arguments);
    }
    std::string shown;
    std::array<char, 256> piece;
    for (ssize_t length; (length = read(terminal, piece.data(), piece.size())) > 0;) {
        shown.append(piece.data(), static_cast<std::size_t>(length));
    }
    close(terminal);
    ToolRun::Finish(tool);
    return shown;
}

TEST_F(CrpPack, ShowsOnATerminalHowFarItIsAndTakesThatAwayAtTheEnd) {
    MakeImage();
    fs::resize_file("/image", 4U << 20);

    EXPECT_EQ(ShownOnATerminal(Arguments({"--image", "/image"})), "\r 25 %\r 50 %\r 75 %\r100 %\r      \r");
    EXPECT_THAT(Results(), ElementsAre("plugin.crp"));
}

TEST_F(CrpPack, LetsMksquashfsShowItsProgressOnATerminalOnly) {
    Sandbox::InstallProgram("/fake/mksquashfs", "exit 4");
    setenv("PATH", "/fake:/usr/bin:/bin", 1);

    ShownOnATerminal(Arguments({"--dir", "/content"}));
    RunTool(Arguments({"--dir", "/content"}));

    ASSERT_EQ(Sandbox::Calls().size(), 2U);
    EXPECT_THAT(Sandbox::Calls()[0].arguments, Not(Contains("-no-progress")));
    EXPECT_THAT(Sandbox::Calls()[1].arguments, Contains("-no-progress"));
}

TEST_F(CrpPack, TakesTextsThatFillTheirFieldUpToTheNul) {
    ASSERT_EQ(PackWith(std::string(63, 'n'), std::string(31, '1'),
                       {"--os", std::string(671, 'o'), "--init", std::string(383, 'i')})
                  .exitCode,
              0);

    const QxNJson::json shown = RunTool({"show", Output, "--json"}).Json();
    EXPECT_EQ(shown["name"], std::string(63, 'n'));
    EXPECT_EQ(shown["version"], std::string(31, '1'));
    EXPECT_EQ(shown["compatibleOs"], std::string(671, 'o'));
    EXPECT_EQ(shown["initCommand"], std::string(383, 'i'));
}

TEST_F(CrpPack, RefusesTextsThatDoNotFit) {
    ExpectRefused(PackWith(std::string(64, 'n'), "1"), 2,
                  "--name has 64 bytes, but its field takes at most 63");
    ExpectRefused(PackWith("n", std::string(32, '1')), 2,
                  "--version has 32 bytes, but its field takes at most 31");
    ExpectRefused(PackWith("n", "1", {"--os", std::string(672, 'o')}), 2, "--os has 672 bytes");
    ExpectRefused(PackWith("n", "1", {"--init", std::string(384, 'i')}), 2, "--init has 384 bytes");
}

TEST_F(CrpPack, RefusesAnEmptyNameOrVersion) {
    ExpectRefused(PackWith("", "1"), 2, "--name is empty");
    ExpectRefused(PackWith("n", ""), 2, "--version is empty");
}

TEST_F(CrpPack, RefusesWrongUsage) {
    ExpectRefused(RunTool(Arguments({})), 2, "--dir DIRECTORY or --image FILE");
    ExpectRefused(RunTool(Arguments({"--dir", "/content", "--image", "/image"})), 2, "excludes");
    ExpectRefused(RunTool({"pack", "--name", "n", "--dir", "/content", "-o", Output}), 2,
                  "--version is required");
    ExpectRefused(RunTool({"pack", "--name", "n", "--version", "1", "--dir", "/content"}), 2,
                  "--output is required");
    ExpectRefused(PackWith("n", "1", {"--priority", "4294967296"}), 2, "--priority");
    ExpectRefused(PackWith("n", "1", {"--priority", "-1"}), 2, "--priority");
    ExpectRefused(PackWith("n", "1", {"--unknown"}), 2, "--unknown");
}

TEST_F(CrpPack, RefusesWhatIsNoDirectoryOrNoImage) {
    ExpectRefused(RunTool(Arguments({"--dir", "/none"})), 3, "'/none' is no directory");
    ExpectRefused(RunTool(Arguments({"--dir", "/content/setup.sh"})), 3, "is no directory");
    ExpectRefused(RunTool(Arguments({"--image", "/none"})), 3, "cannot read --image '/none': No such file");
    ExpectRefused(RunTool(Arguments({"--image", "/content"})), 3, "no regular file");
    ExpectRefused(RunTool(Arguments({"--image", "/content/bin/tool"})), 1, "no squashfs image");
    Sandbox::WriteFile("/empty", "");
    ExpectRefused(RunTool(Arguments({"--image", "/empty"})), 1, "no squashfs image");
    mkfifo("/run/fifo", 0600);
    ExpectRefused(RunTool(Arguments({"--image", "/run/fifo"})), 3, "no regular file");
}

TEST_F(CrpPack, RefusesAnImageThatIsCutOff) {
    MakeImage();
    fs::resize_file("/image", 200);

    ExpectRefused(RunTool(Arguments({"--image", "/image"})), 1, "is cut off");
}

TEST_F(CrpPack, RefusesToPackItsOwnOutput) {
    const Result result =
        RunTool({"pack", "--name", "n", "--version", "1", "--dir", "/content", "-o", "/content/bin/x.crp"});

    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.errors, HasSubstr("lies in the directory that is to be packed"));
}

TEST_F(CrpPack, ReplacesNothingButRegularFiles) {
    mkfifo(Output, 0600);

    EXPECT_EQ(RunTool(Arguments({"--dir", "/content"})).exitCode, 3);
    EXPECT_TRUE(fs::is_fifo(Output));
    EXPECT_EQ(
        RunTool({"pack", "--name", "n", "--version", "1", "--dir", "/content", "-o", "/none/x"}).exitCode, 3);
}

TEST_F(CrpPack, RefusesALinkThatLeadsNowhere) {
    fs::create_symlink("/none/real.crp", Output);

    const Result result = RunTool(Arguments({"--dir", "/content"}));

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.errors, "crp: '/out/plugin.crp' is a link that leads nowhere; remove it\n");
    EXPECT_TRUE(fs::is_symlink(Output));
    EXPECT_THAT(Results(), ElementsAre("plugin.crp"));
}

TEST_F(CrpPack, ReplacesTheFileBehindALink) {
    Sandbox::WriteFile("/elsewhere/real.crp", "old");
    fs::create_symlink("/elsewhere/real.crp", Output);

    ASSERT_EQ(RunTool(Arguments({"--dir", "/content"})).exitCode, 0);

    EXPECT_TRUE(fs::is_symlink(Output));
    EXPECT_GT(fs::file_size("/elsewhere/real.crp"), 2048U);
}

TEST_F(CrpPack, WarnsOfWhatABoardSeesOtherwise) {
    const Result result = PackWith("n", "v1.2", {"--type", "2", "--json"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.Json()["warnings"].size(), 2U);
    EXPECT_THAT(result.errors, HasSubstr("counts as 0.0.0"));
    EXPECT_THAT(result.errors, HasSubstr("boards load no plugin of type 2"));
}

TEST_F(CrpPack, DoesNotWarnOfVersionsThatBeginWithANumber) {
    for (const char* version : {"0", "+0", "-0", " 0.0", "-1", "0x1"}) {
        const Result result = RunTool({"pack", "--name", "n", std::string("--version=") + version, "-o",
                                       Output, "--dir", "/content", "--json"});

        EXPECT_EQ(result.exitCode, 0) << version << result.errors;
        EXPECT_EQ(result.Json()["warnings"].dump(), "[]") << version;
    }
    for (const char* version : {"v0", "+", "- 0", ".0", " "}) {
        const Result result = RunTool({"pack", "--name", "n", std::string("--version=") + version, "-o",
                                       Output, "--dir", "/content", "--json"});

        EXPECT_EQ(result.Json()["warnings"].size(), 1U) << version;
    }
}

TEST_F(CrpPack, SaysWhatIsMissingWithoutMksquashfs) {
    setenv("PATH", "/empty-path", 1);

    ExpectRefused(RunTool(Arguments({"--dir", "/content"})), 3, "install squashfs-tools");
}

TEST_F(CrpPack, KeepsTheOldFileWhenMksquashfsFails) {
    Sandbox::InstallProgram("/fake/mksquashfs", "echo broken >&2; exit 4");
    setenv("PATH", "/fake:/usr/bin:/bin", 1);
    Sandbox::WriteFile(Output, "old");

    const Result result = RunTool(Arguments({"--dir", "/content"}));

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.errors, "broken\ncrp: mksquashfs could not pack '/content'; it exited with 4\n");
    EXPECT_EQ(Sandbox::ReadFile(Output), "old");
    EXPECT_THAT(Results(), ElementsAre("plugin.crp"));
}

TEST_F(CrpPack, KeepsTheOldFileWhenMksquashfsIsKilled) {
    Sandbox::InstallProgram("/fake/mksquashfs", "kill -9 $$");
    setenv("PATH", "/fake:/usr/bin:/bin", 1);
    Sandbox::WriteFile(Output, "old");

    const Result result = RunTool(Arguments({"--dir", "/content"}));

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.errors, "crp: mksquashfs could not pack '/content'; it was ended by signal 9\n");
    EXPECT_EQ(Sandbox::ReadFile(Output), "old");
    EXPECT_THAT(Results(), ElementsAre("plugin.crp"));
}

TEST_F(CrpPack, KeepsTheOldFileWhenTheDriveIsFull) {
    MakeImage();
    ASSERT_EQ(mount("tmpfs", "/out", "tmpfs", 0, "size=4k"), 0);

    ExpectRefused(RunTool(Arguments({"--image", "/image"})), 3, "No space left on device");
}

class CrpPackSignal : public CrpPack, public testing::WithParamInterface<int> {};

TEST_P(CrpPackSignal, LeavesNothingHalfDoneWhenInterrupted) {
    Sandbox::InstallProgram("/fake/mksquashfs", "echo $$ > /run/builder; exec sleep 60");
    setenv("PATH", "/fake:/usr/bin:/bin", 1);
    const pid_t tool = ToolRun::Start(Arguments({"--dir", "/content"}));
    ASSERT_TRUE(Sandbox::Eventually([] { return !Sandbox::ReadFile("/run/builder").empty(); }));
    ASSERT_THAT(Results(), ElementsAre(StartsWith(".crp-")));

    kill(tool, GetParam());
    const Result result = ToolRun::Finish(tool);

    EXPECT_EQ(result.signal, GetParam());
    EXPECT_THAT(Results(), IsEmpty());
    EXPECT_NE(kill(std::stoi(Sandbox::ReadFile("/run/builder")), 0), 0) << "mksquashfs still runs";
}

TEST_F(CrpPack, StopsCopyingWhenInterrupted) {
    MakeImage();
    // Held back signals stay so in the tool, which then can only exit as a shell would report it.
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt, nullptr);
    const pid_t tool = ToolRun::Start(Arguments({"--image", "/image"}), SIGINT);

    const Result result = ToolRun::Finish(tool);

    EXPECT_EQ(result.exitCode, 128 + SIGINT);
    EXPECT_THAT(Results(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Signals, CrpPackSignal, testing::Values(SIGINT, SIGTERM, SIGHUP));

}  // namespace
