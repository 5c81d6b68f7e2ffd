#include "Sandbox.h"
#include "tests/crp/PluginMaker.h"
#include "tests/crp/ToolRun.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <filesystem>

using PluginMaker::Trailer;
using QxNJson::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using ToolRun::Result;
using ToolRun::RunTool;
namespace fs = std::filesystem;

namespace {

/// The user directory /user and the system directory /system, and an image for the plugins in them.
class CrpCheck : public testing::Test {
protected:
    CrpCheck() {
        fs::create_directory("/user");
        fs::create_directory("/system");
        Sandbox::WriteFile("/content/setup.sh", "");
        Sandbox::WriteFile("/content/bin/plain", "");
        Sandbox::WriteFile("/content/bin/program", "");
        chmod("/content/bin/program", 0755);
        fs::create_symlink("bin", "/content/link");
        _image = PluginMaker::ImageOf("/content");
    }

    void Install(const std::string& path, CrpPluginHeader trailer,
                 const std::string& initCommand = {}) const {
        trailer.imageSize = _image.size();
        PluginMaker::SetText(trailer.initCommand, initCommand);
        PluginMaker::Write(path, trailer, _image);
    }

    static Result Check(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"check", "--os-release", "5.4.1-rt", "--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return RunTool(arguments);
    }

    /// @return "file verdict [order]" of each file
    static std::vector<std::string> Verdicts(const Result& result) {
        std::vector<std::string> verdicts;
        const json report = result.Json();
        for (const auto& file : report["files"]) {
            std::string line = file["file"].get<std::string>() + " " + file["verdict"].get<std::string>();
            if (file.contains("order")) {
                line.append(" ").append(file["order"].dump());
            }
            verdicts.push_back(line);
        }
        return verdicts;
    }

    static json OnlyFile(const Result& result) { return result.Json()["files"].at(0); }

    /// @return the problems with a single plugin that has this init command
    std::vector<std::string> ProblemsWithInit(const std::string& initCommand) const {
        Install("/user/a", Trailer("a", "1"), initCommand);
        return OnlyFile(Check({"/user/a"}))["problems"].get<std::vector<std::string>>();
    }

    std::string _image;
};

TEST_F(CrpCheck, IsFineWhenEverythingIsLoadedInOrder) {
    CrpPluginHeader late = Trailer("late", "1");
    late.initPriority = 0xFFFFFFFF;
    Install("/user/late", late);
    Install("/user/early", Trailer("early", "1", "-rt"), "setup.sh");

    const Result result = Check({"/user"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(Verdicts(result), UnorderedElementsAre("/user/late load 2", "/user/early load 1"));
}

TEST_F(CrpCheck, TellsTheSameInWords) {
    Install("/user/a", Trailer("a", "1"), "none.sh");
    Install("/user/b", Trailer("b", "1", "5.10"));

    const Result result = RunTool({"check", "/user/a", "/user/b", "--os-release", "5.4.1-rt"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output,
              "on a board with OS release \"5.4.1-rt\":\n"
              "\"/user/a\"\n"
              "    load as number 1: \"a\" version \"1\", priority 0\n"
              "    problem: the init command's file \"none.sh\" is not in the image\n"
              "\"/user/b\"\n"
              "    incompatible: \"b\" version \"1\", priority 0\n"
              "    needs an OS release that contains \"5.10\"\n");
}

TEST_F(CrpCheck, NamesWhatSupersedesAPlugin) {
    Install("/user/old", Trailer("a", "1.9.0"));
    Install("/user/tie", Trailer("b", "1.2"));
    Install("/system/new", Trailer("a", "1.10.0"));
    Install("/system/tie", Trailer("b", "1.2.0"));

    const Result result = Check({"/user", "--system", "/system"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(Verdicts(result),
                UnorderedElementsAre(HasSubstr("/system/new load"), HasSubstr("/user/tie load"),
                                     "/user/old superseded", "/system/tie superseded"));
    const json report = result.Json();
    for (const auto& file : report["files"]) {
        if (file["file"] == "/user/old") {
            EXPECT_EQ(file["supersededBy"], "/system/new");
        }
    }
}

TEST_F(CrpCheck, LetsNoIncompatiblePluginSupersedeOthers) {
    Install("/user/new", Trailer("a", "2", "5.10"));
    Install("/user/old", Trailer("a", "1"));

    EXPECT_THAT(Verdicts(Check({"/user"})),
                UnorderedElementsAre("/user/new incompatible", "/user/old load 1"));
}

TEST_F(CrpCheck, LetsADeactivatedPluginHideItsOlderVersions) {
    Install("/user/new", Trailer("a", "2"));
    Install("/user/old", Trailer("a", "1"));
    Sandbox::WriteFile("/run/config.json", R"({"deactivated_plugins": [{"name": "a", "version": "2"}]})");

    EXPECT_THAT(Verdicts(Check({"/user", "--deactivated", "/run/config.json"})),
                UnorderedElementsAre("/user/new deactivated", "/user/old superseded"));
}

TEST_F(CrpCheck, KnowsOtherTypes) {
    CrpPluginHeader trailer = Trailer("a", "1");
    trailer.pluginType = 2;
    Install("/user/a", trailer);

    const Result result = Check({"/user/a"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(Verdicts(result), ElementsAre("/user/a unsupported type"));
    EXPECT_EQ(OnlyFile(result)["reason"], "type 2 is not supported, only type 1");
}

TEST_F(CrpCheck, SaysWhyAFileIsSkipped) {
    CrpPluginHeader other = Trailer("a", "1");
    other.header_size = 4096;
    const auto expect = [](const std::string& path, const std::string& reason) {
        const Result result = Check({path});
        EXPECT_EQ(result.exitCode, 1) << path;
        EXPECT_THAT(Verdicts(result), ElementsAre(path + " skipped"));
        EXPECT_THAT(OnlyFile(result)["reason"].get<std::string>(), HasSubstr(reason));
    };
    Sandbox::WriteFile("/user/short", "x");
    Sandbox::WriteFile("/user/magic", std::string(5000, 'x'));
    PluginMaker::Write("/user/other", other);
    Install("/user/.hidden", Trailer("a", "1"));
    mkfifo("/user/fifo", 0600);

    expect("/user/short", "no plugin: shorter than the 2048 bytes");
    expect("/user/magic", "no plugin: its last 2048 bytes do not begin with the magic number");
    expect("/user/other", "incompatible header version: its trailer has 4096 bytes instead of 2048");
    expect("/user/.hidden", "hidden");
    expect("/user/fifo", "no regular file");
}

TEST_F(CrpCheck, ExpectsHiddenFilesAndTheConfigurationInADirectory) {
    Sandbox::WriteFile("/user/config.json", "{}");
    Sandbox::WriteFile("/user/.crp-123456", "");
    Install("/user/a", Trailer("a", "1"));

    const Result result = Check({"/user"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(Verdicts(result), UnorderedElementsAre("/user/config.json skipped",
                                                       "/user/.crp-123456 skipped", "/user/a load 1"));
    Sandbox::WriteFile("/user/readme", "");
    EXPECT_EQ(Check({"/user"}).exitCode, 1);
    EXPECT_EQ(Check({"/user/config.json"}).exitCode, 1);
}

TEST_F(CrpCheck, CountsAFileOnceThatWasNamedTwice) {
    Install("/user/a", Trailer("a", "1"));

    const Result result = Check({"/user/a", "/user", "/user/../user/", "--system", "/user"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(Verdicts(result), ElementsAre("/user/a load 1"));
}

TEST_F(CrpCheck, SeesThatThePluginIsCutOff) {
    CrpPluginHeader trailer = Trailer("a", "1");
    trailer.imageSize = _image.size() + 1;
    PluginMaker::Write("/user/a", trailer, _image);

    const Result result = Check({"/user/a"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(Verdicts(result), ElementsAre("/user/a load 1"));
    EXPECT_THAT(OnlyFile(result)["problems"].dump(), HasSubstr("the file is cut off: it has"));
}

TEST_F(CrpCheck, SeesThatTheImageIsNoneOrLongerThanTheDevice) {
    CrpPluginHeader trailer = Trailer("a", "1");
    PluginMaker::Write("/user/none", trailer, _image.substr(1));
    trailer = Trailer("b", "1");
    trailer.imageSize = 100;
    PluginMaker::Write("/user/short", trailer, _image);

    EXPECT_THAT(OnlyFile(Check({"/user/none"}))["problems"].dump(),
                HasSubstr("does not begin with a squashfs image"));
    EXPECT_THAT(OnlyFile(Check({"/user/short"}))["problems"].dump(), HasSubstr("imageSize says 100"));
}

TEST_F(CrpCheck, SeesAnImageWhoseEndLiesBeyondTheLastWholeSector) {
    const std::string image = PluginMaker::ImageOf("/content", "-nopad");
    ASSERT_NE(image.size() % 512, 0U);
    CrpPluginHeader trailer = Trailer("a", "1");
    trailer.imageSize = image.size();
    PluginMaker::Write("/user/odd", trailer, image);
    trailer.imageSize = image.size() / 512 * 512 + 512;
    PluginMaker::Write("/user/even", trailer, image + std::string(trailer.imageSize - image.size(), '\0'));

    const Result odd = Check({"/user/odd"});

    EXPECT_EQ(odd.exitCode, 1);
    EXPECT_EQ(OnlyFile(odd)["problems"].at(0),
              "the image is cut off: its file system has " + std::to_string(image.size()) +
                  " bytes, imageSize says " + std::to_string(image.size()) +
                  ", of which a loop device shows " + std::to_string(image.size() / 512 * 512));
    EXPECT_EQ(Check({"/user/even"}).exitCode, 0);
}

TEST_F(CrpCheck, SeesThatAnImageWithoutASizeReachesIntoTheTrailer) {
    const std::string image = PluginMaker::ImageOf("/content", "-nopad");
    PluginMaker::Write("/user/cut", Trailer("a", "1"), image.substr(0, image.size() - 1));
    PluginMaker::Write("/user/just", Trailer("a", "1"), image);

    const Result cut = Check({"/user/cut"});

    EXPECT_EQ(cut.exitCode, 1);
    EXPECT_EQ(OnlyFile(cut)["problems"].at(0),
              "the image is cut off: its file system has " + std::to_string(image.size()) +
                  " bytes, the file has " + std::to_string(image.size() - 1) + " in front of its trailer");
    EXPECT_EQ(Check({"/user/just"}).exitCode, 0);
}

TEST_F(CrpCheck, LooksIntoAFileWhoseNameBeginsWithADash) {
    Install("/user/-a", Trailer("a", "1"), "setup.sh");
    fs::current_path("/user");

    const Result result = Check({"--", "-a"});

    EXPECT_EQ(result.exitCode, 0) << result.output << result.errors;
    EXPECT_THAT(Verdicts(result), ElementsAre("-a load 1"));
}

TEST_F(CrpCheck, LooksForTheInitCommandsFileInTheImage) {
    for (const char* fine :
         {"", "setup.sh --fast", "./setup.sh", "bin/program x", "bin/../setup.sh", "./bin/plain", "echo hi",
          "missing", "/bin/missing.sh", " ./missing", "./$X/missing.sh", "../missing"}) {
        EXPECT_THAT(ProblemsWithInit(fine), testing::IsEmpty()) << fine;
    }
    for (const char* missing : {"missing.sh", "./missing now", "bin/missing", "bin/setup.sh", "setup.sh/x"}) {
        EXPECT_THAT(ProblemsWithInit(missing), ElementsAre(HasSubstr("is not in the image"))) << missing;
    }
    EXPECT_THAT(ProblemsWithInit("./bin"), ElementsAre(HasSubstr("is a directory")));
    EXPECT_THAT(ProblemsWithInit("bin/plain"), ElementsAre(HasSubstr("is not executable")));
}

TEST_F(CrpCheck, DoesNotFollowLinksInTheImage) {
    Install("/user/a", Trailer("a", "1"), "link/any.sh");

    const Result result = Check({"/user/a"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.Json()["notes"].dump(), HasSubstr("lies behind a link"));
}

TEST_F(CrpCheck, SeesADamagedImage) {
    CrpPluginHeader trailer = Trailer("a", "1");
    trailer.imageSize = _image.size();
    PluginMaker::SetText(trailer.initCommand, "setup.sh");
    PluginMaker::Write("/user/a", trailer, _image.substr(0, 96) + std::string(_image.size() - 96, 'x'));

    EXPECT_THAT(OnlyFile(Check({"/user/a"}))["problems"].dump(),
                HasSubstr("unsquashfs cannot read the image"));
}

TEST_F(CrpCheck, SaysWhatItCouldNotCheckWithoutUnsquashfs) {
    Install("/user/a", Trailer("a", "1"), "missing.sh");
    setenv("PATH", "/empty-path", 1);

    const Result result = Check({"/user/a"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.Json()["notes"].dump(), HasSubstr("unsquashfs is not installed"));
}

TEST_F(CrpCheck, SeesPluginsThatShareAMountPointOrAPriority) {
    Install("/user/a", Trailer("my tool", "1"));
    Install("/user/b", Trailer("my_tool", "1"));

    const Result result = Check({"/user"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, HasSubstr("is mounted at /mnt/crp_my_tool over"));
    EXPECT_THAT(result.output, HasSubstr("the order among them is not defined"));
}

TEST_F(CrpCheck, ReportsFlawsOfTheConfiguration) {
    Install("/user/a", Trailer("a", "1.2.0"));
    const auto checkWith = [](const char* config) {
        Sandbox::WriteFile("/run/config.json", config);
        return Check({"/user/a", "--deactivated", "/run/config.json"});
    };

    EXPECT_EQ(checkWith("no json").exitCode, 1);
    EXPECT_EQ(checkWith(R"({"deactivated_plugins": [7]})").exitCode, 1);
    EXPECT_EQ(checkWith("{}").exitCode, 0);
    mkfifo("/run/fifo", 0600);
    EXPECT_EQ(Check({"/user/a", "--deactivated", "/run/fifo"}).exitCode, 1);
    const Result unused = checkWith(R"({"deactivated_plugins": [{"name": "a", "version": "1.2"}]})");
    EXPECT_EQ(unused.exitCode, 0);
    EXPECT_THAT(unused.Json()["notes"].dump(), HasSubstr("which none of the files is"));
}

TEST_F(CrpCheck, FailsForWhatCannotBeRead) {
    Install("/user/a", Trailer("a", "1"));

    EXPECT_EQ(Check({"/none", "/user/a"}).exitCode, 3);
    EXPECT_EQ(Check({"/user/a", "--system", "/none"}).exitCode, 3);
    EXPECT_EQ(Check({"/user/a", "--deactivated", "/none"}).exitCode, 3);
    EXPECT_EQ(Check({"/user/a", "--deactivated", "/user"}).exitCode, 3);
    EXPECT_EQ(Check({}).exitCode, 2);
}

TEST_F(CrpCheck, TakesTheRunningReleaseWhenNoneIsGiven) {
    std::string release = Sandbox::ReadFile("/proc/sys/kernel/osrelease");
    release.pop_back();
    Install("/user/a", Trailer("a", "1", release));

    EXPECT_EQ(RunTool({"check", "/user/a"}).exitCode, 0);
}

TEST_F(CrpCheck, WritesNoLog) {
    Install("/user/a", Trailer("a", "1", "5.10"));

    Check({"/user"});

    EXPECT_FALSE(fs::exists("/var/log/quolex"));
}

}  // namespace
