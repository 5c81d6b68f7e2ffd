#include "tests/crp/ScannerFixture.h"

#include "Sandbox.h"
#include "tests/crp/FailingSystemCall.h"
#include "tests/crp/PluginMaker.h"
#include "tests/crp/RecordedOpens.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <cerrno>
#include <filesystem>
#include <fstream>

using PluginMaker::Trailer;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

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

TEST_F(CrpScanner, ReadsEveryFieldFromItsPlaceAndNothingElse) {
    std::string bytes(2048, '\xEE');
    const auto put = [&](std::size_t offset, const std::string& field) {
        bytes.replace(offset, field.size(), field);
    };
    put(0, std::string("\0PRC", 4));
    put(8, std::string("\0\x08\0\0", 4));
    put(16, std::string("tool", 5));
    put(80, std::string("1.2.3", 6));
    put(112, std::string("os", 3));
    put(784, std::string("./run", 6));
    put(1168, "\x04\x03\x02\x81");
    put(1176, "\x08\x07\x06\x05\x04\x03\x02\x81");
    put(1184, std::string("\1\0\0\0", 4));
    Sandbox::WriteFile("/t/a", bytes);
    CrpPluginHeader header{};

    ASSERT_TRUE(_scanner.readHeader("/t/a", header));
    EXPECT_STREQ(header.name, "tool");
    EXPECT_STREQ(header.version, "1.2.3");
    EXPECT_STREQ(header.compatibleOs, "os");
    EXPECT_STREQ(header.initCommand, "./run");
    EXPECT_EQ(header.initPriority, 0x81020304U);
    EXPECT_EQ(header.imageSize, 0x8102030405060708U);
    EXPECT_EQ(header.pluginType, CRP_PLUGIN_TYPE_SQUASHFS);
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

TEST_F(CrpScanner, OpensEveryFileOnceInAScan) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    PluginMaker::Write(InSystemDir("b.crp"), Trailer("a", "2.0.0"));
    _scanner.scan();  // what is set up once does not count

    EXPECT_THAT(RecordedOpens::During([&] { _scanner.scan(); }),
                ElementsAre(std::string(UserDir) + " read", InUserDir("a.crp") + " read",
                            std::string(SystemDir) + " read", InSystemDir("b.crp") + " read"));
}

TEST_F(CrpScanner, OpensNothingButRegularFiles) {
    PluginMaker::Write(InUserDir("a.crp"), Trailer("a", "1.0.0"));
    fs::create_directories(InUserDir("directory"));
    fs::create_symlink("/dev/zero", InUserDir("device-link"));
    mknod(InUserDir("device").c_str(), S_IFCHR | 0600, makedev(1, 5));
    mkfifo(InUserDir("fifo").c_str(), 0600);
    ScanUserDir();  // what is set up once does not count

    EXPECT_THAT(RecordedOpens::During([&] { ScanUserDir(); }),
                ElementsAre(std::string(UserDir) + " read", InUserDir("a.crp") + " read"));
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
