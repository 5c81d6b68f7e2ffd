#include "Sandbox.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/PluginMaker.h"
#include "tests/crp/ToolRun.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <cerrno>

using testing::HasSubstr;
using ToolRun::Result;
using ToolRun::RunTool;

namespace {

CrpPluginHeader Example() {
    CrpPluginHeader trailer = PluginMaker::Trailer("my tool", "1.2", "-rt");
    PluginMaker::SetText(trailer.initCommand, "setup.sh");
    trailer.initPriority = 7;
    trailer.imageSize = 10;
    return trailer;
}

TEST(CrpShow, TellsTheTrailerInWords) {
    PluginMaker::Write("/run/p.crp", Example(), "0123456789+");

    const Result result = RunTool({"show", "/run/p.crp"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output,
              "file           \"/run/p.crp\"\n"
              "magic          0x43525000\n"
              "trailer size   2048 bytes\n"
              "name           \"my tool\"\n"
              "version        \"1.2\", compared as 1.2.0\n"
              "OS release     must contain \"-rt\"\n"
              "init command   runs as \"cd /mnt/crp_my_tool && sh setup.sh\"\n"
              "priority       7\n"
              "type           1, squashfs\n"
              "image size     10 bytes, followed by 1 unused\n"
              "file size      2059 bytes\n"
              "mount point    /mnt/crp_my_tool\n");
}

TEST(CrpShow, TellsTheTrailerAsJson) {
    PluginMaker::Write("/run/p.crp", Example(), "0123456789");

    EXPECT_EQ(
        RunTool({"show", "--json", "/run/p.crp"}).Json().dump(),
        R"({"file":"/run/p.crp","magic":1129467904,"headerSize":2048,"name":"my tool","version":"1.2",)"
        R"("compatibleOs":"-rt","initCommand":"setup.sh","initPriority":7,"pluginType":1,"imageSize":10,)"
        R"("fileSize":2058,"isImageComplete":true,"mountPoint":"/mnt/crp_my_tool"})");
}

TEST(CrpShow, SeesAnImageThatIsCutOff) {
    PluginMaker::Write("/run/p.crp", Example(), "012345678");

    const Result result = RunTool({"show", "/run/p.crp"});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output,
                HasSubstr("10 bytes, but the file has only 9 in front of its trailer: it is cut off"));
}

TEST(CrpShow, EscapesWhatCouldUpsetATerminal) {
    PluginMaker::Write("/run/p.crp", PluginMaker::Trailer("a\x1b[31m\n\xFF\xC2\x9B", "1"));

    const Result result = RunTool({"show", "/run/p.crp"});

    EXPECT_THAT(result.output, HasSubstr(R"(name           "a\u001b[31m\n\ufffd\u009b")"));
    EXPECT_FALSE(RunTool({"show", "/run/p.crp", "--json"}).Json().is_invalid());
}

TEST(CrpShow, SaysWhyAFileIsNoPlugin) {
    const auto expect = [](const std::string& content, const std::string& reason) {
        Sandbox::WriteFile("/run/p.crp", content);
        const Result result = RunTool({"show", "/run/p.crp"});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(result.errors, HasSubstr(reason));
    };
    CrpPluginHeader other = Example();
    other.header_size = 4096;

    expect("", "shorter than the 2048 bytes");
    expect(std::string(2048, 'x'), "do not begin with the magic number");
    expect(PluginMaker::Bytes(other), "has a trailer of 4096 bytes, where 2048 are expected");
}

TEST(CrpShow, FailsForWhatCannotBeRead) {
    mkfifo("/run/fifo", 0600);

    EXPECT_EQ(RunTool({"show", "/none"}).exitCode, 3);
    EXPECT_EQ(RunTool({"show", "/run"}).exitCode, 3);
    EXPECT_EQ(RunTool({"show", "/run/fifo"}).exitCode, 3);
    EXPECT_EQ(RunTool({"show"}).exitCode, 2);
}

TEST(CrpShow, MeasuresTheFileThatItRead) {
    PluginMaker::Write("/run/p.crp", Example(), "0123456789");
    constexpr FailingArgument OfAPath{3, 0};
    FailSystemCall(SYS_newfstatat, ENOENT, OfAPath);

    const Result result = RunTool({"show", "/run/p.crp"});

    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("file size      2058 bytes\n"));
}

TEST(CrpTool, FailsWhenItCannotTellItsResult) {
    PluginMaker::Write("/run/p.crp", Example(), "0123456789");

    const Result result = ToolRun::Finish(ToolRun::Start({"show", "/run/p.crp"}, 0, "/dev/full"));

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.errors, "crp: cannot write the result: No space left on device\n");
}

TEST(CrpTool, ExplainsItsExitCodes) {
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"--help"}, {"pack", "--help"}, {"show", "--help"}, {"check", "--help"}}) {
        const Result result = RunTool(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output, HasSubstr("Exit codes:"));
    }
    EXPECT_EQ(RunTool({}).exitCode, 2);
    EXPECT_EQ(RunTool({"unknown"}).exitCode, 2);
}

}  // namespace
