#include "tests/crp/ScannerFixture.h"

#include "Sandbox.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/PluginMaker.h"
#include "tests/crp/RecordedOpens.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <fstream>

using PluginMaker::Trailer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST_F(CrpScanner, ReadsATrailerThatIsTheWholeFile) {
    CrpPluginHeader written = Trailer("a", "1.0.0");
    written.imageSize = 123456789;
    written.reserved4[859] = 7;
    PluginMaker::Write("/t/a", written);
    CrpPluginHeader read{};

    EXPECT_TRUE(_scanner.readHeader("/t/a", read));
    EXPECT_EQ(PluginMaker::Bytes(read), PluginMaker::Bytes(written));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScanner, ReadsOnlyTheLastBytesOfAFile) {
    const std::string decoy = PluginMaker::Bytes(Trailer("decoy", "9.9.9"));
    PluginMaker::Write("/t/2049", Trailer("a", "1.0.0"), "x");
    PluginMaker::Write("/t/two", Trailer("b", "1.0.0"), decoy);
    Sandbox::WriteFile("/t/behind", decoy + "x");
    CrpPluginHeader header{};

    EXPECT_TRUE(_scanner.readHeader("/t/2049", header));
    EXPECT_STREQ(header.name, "a");
    EXPECT_TRUE(_scanner.readHeader("/t/two", header));
    EXPECT_STREQ(header.name, "b");
    EXPECT_FALSE(_scanner.readHeader("/t/behind", header));
}

TEST_F(CrpScanner, SkipsFilesShorterThanATrailerWithoutAWord) {
    const std::string whole = PluginMaker::Bytes(Trailer("a", "1.0.0"));
    for (const std::size_t size : {0U, 1U, 2047U}) {
        Sandbox::WriteFile("/t/short", whole.substr(0, size));
        EXPECT_FALSE(Reads("/t/short")) << size;
        Sandbox::WriteFile("/t/short", whole.substr(whole.size() - size));
        EXPECT_FALSE(Reads("/t/short")) << size;
    }
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScanner, ReadsTheTrailerOfASparseFileBeyondFourGigabytes) {
    const std::string path = "/run/huge";
    {
        std::ofstream file(path, std::ios::binary);
        file.seekp((std::int64_t{5} << 30) + 3);
        file << PluginMaker::Bytes(Trailer("huge", "1.0.0"));
    }
    CrpPluginHeader header{};

    EXPECT_TRUE(_scanner.readHeader(path, header));
    EXPECT_STREQ(header.name, "huge");
}

TEST_F(CrpScanner, SkipsAWrongMagicWithoutAWord) {
    CrpPluginHeader trailer = Trailer("a", "1.0.0");
    trailer.magic = 0x43525001;
    trailer.header_size = 4096;
    PluginMaker::Write("/t/a", trailer);

    EXPECT_FALSE(Reads("/t/a"));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScanner, WarnsAboutAnIncompatibleHeaderVersion) {
    CrpPluginHeader trailer = Trailer("a", "1.0.0");
    trailer.header_size = 4096;
    PluginMaker::Write("/t/a", trailer);

    EXPECT_FALSE(Reads("/t/a"));
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[WARNING] Quolex Container Runtime: '/t/a' has header_size=4096 (expected 2048) "
                            "\xE2\x80\x93 skipping incompatible header version"));
}

TEST_F(CrpScannerVerbose, TellsWhatItRead) {
    PluginMaker::Write("/t/a", Trailer("a", "1.0.0"));

    EXPECT_TRUE(Reads("/t/a"));
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container Runtime: Read header from '/t/a': "
                            "magic=0x43525000, header_size=2048"));
}

TEST_F(CrpScanner, SkipsFilesThatVanished) {
    EXPECT_FALSE(Reads("/t/vanished"));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScanner, IsNotHeldUpByAFifoThatTookTheFilesPlace) {
    mkfifo("/run/fifo", 0600);

    EXPECT_FALSE(Reads("/run/fifo"));
}

TEST_F(CrpScanner, ReadsNoTrailerFromDirectoriesAndDevices) {
    EXPECT_FALSE(Reads("/run"));
    EXPECT_FALSE(Reads("/dev/zero"));
    EXPECT_FALSE(Reads("/dev/null"));
}

TEST_F(CrpScanner, SkipsFilesThatCannotBeReadToTheEnd) {
    PluginMaker::Write("/t/a", Trailer("a", "1.0.0"));
    FailSystemCall(SYS_read, EIO, FailingArgument{2, CRP_HEADER_SIZE});

    EXPECT_FALSE(Reads("/t/a"));
}

TEST_F(CrpScanner, SkipsFilesThatEndBeforeTheTrailerIsWhole) {
    PluginMaker::Write("/t/a", Trailer("a", "1.0.0"));
    constexpr int NoErrorButNothingRead = 0;
    FailSystemCall(SYS_read, NoErrorButNothingRead, FailingArgument{2, CRP_HEADER_SIZE});
    CrpPluginHeader header = Trailer("valid already", "1.0.0");

    EXPECT_FALSE(_scanner.readHeader("/t/a", header));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(CrpScanner, OpensAFileForReadingAndForNoProgramItStarts) {
    PluginMaker::Write("/t/a", Trailer("a", "1.0.0"));
    bool isRead = false;

    EXPECT_THAT(RecordedOpens::During([&] { isRead = Reads("/t/a"); }), ElementsAre("/t/a read"));
    EXPECT_TRUE(isRead);
}

TEST_F(CrpScanner, SkipsFilesInWhichItCannotSeek) {
    PluginMaker::Write("/t/a", Trailer("a", "1.0.0"));
    FailSystemCall(SYS_lseek, EINVAL, FailingArgument{2, SEEK_SET});

    EXPECT_FALSE(Reads("/t/a"));
}

TEST_F(CrpScanner, ClosesEveryFile) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    Sandbox::WriteFile(InUserDir("short"), "x");
    CrpPluginHeader incompatible = Trailer("b", "1");
    incompatible.header_size = 1;
    PluginMaker::Write(InUserDir("b.crp"), incompatible);
    const std::vector<std::string> before = Sandbox::OpenDescriptors();

    _scanner.scan();

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
}

}  // namespace
