#include "ComposeAccess.h"
#include "ComposeStandIn.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

class ComposeFileCheck : public testing::Test, protected ComposeFileHandlerTest {
protected:
    ComposeFileCheck() { ComposeStandIn::ProvideFile("web.yaml"); }

    void ExpectFound(const std::string& name) {
        const Checked checked = Check(name.c_str());
        EXPECT_EQ(checked.code, 0) << name;
        EXPECT_EQ(checked.path, ComposeStandIn::FilePath(name));
        EXPECT_EQ(checked.error, "");
    }

    void ExpectMissing(const std::string& name) {
        const Checked checked = Check(name.c_str());
        EXPECT_EQ(checked.code, 4) << name;
        EXPECT_EQ(checked.error, "file '" + ComposeStandIn::FilePath(name) + "' is not existing.");
    }
};

TEST_F(ComposeFileCheck, RejectsANullPointer) {
    EXPECT_EQ(Check(nullptr).code, 2);
    EXPECT_EQ(Check(nullptr).error, "file name is uninitialized.");
}

TEST_F(ComposeFileCheck, RejectsBlanks) {
    for (const char* name : {"", "  ", "\t\r\n "}) {
        EXPECT_EQ(Check(name).code, 3);
        EXPECT_EQ(Check(name).error, "no file name is specified.");
    }
}

TEST_F(ComposeFileCheck, FindsAFileAndTrimsItsName) {
    ExpectFound("web.yaml");
    EXPECT_EQ(Check("\n web.yaml\t").path, ComposeStandIn::FilePath("web.yaml"));
    EXPECT_EQ(Check("\vweb.yaml").code, 4) << "a vertical tab belongs to the name";
}

TEST_F(ComposeFileCheck, TellsThePathOfAMissingFile) { ExpectMissing("other.yaml"); }

TEST_F(ComposeFileCheck, WithoutTheDirectoryEveryFileIsMissing) {
    fs::remove_all("/userstorage1");

    ExpectMissing("web.yaml");
}

TEST_F(ComposeFileCheck, AnythingThatExistsCounts) {
    fs::create_directories(ComposeStandIn::FilePath("directory"));
    mkfifo(ComposeStandIn::FilePath("fifo").c_str(), 0600);
    fs::create_symlink("/dev/null", ComposeStandIn::FilePath("device"));

    ExpectFound("directory");
    ExpectFound("fifo");
    ExpectFound("device");
}

TEST_F(ComposeFileCheck, ReachesOtherDirectories) {
    ComposeStandIn::ProvideFile("sub/x.yaml");
    ComposeStandIn::ProvideFile("../above.yaml");

    ExpectFound("sub/x.yaml");
    ExpectFound("../above.yaml");
    ExpectFound("..");
    ExpectFound(".");
    ExpectFound("/web.yaml");
    ExpectMissing("sub/../y.yaml");
}

TEST_F(ComposeFileCheck, AFileIsNoDirectory) {
    ExpectMissing("web.yaml/");
    ExpectMissing("web.yaml/x.yaml");
}

TEST_F(ComposeFileCheck, FollowsLinks) {
    fs::create_symlink("web.yaml", ComposeStandIn::FilePath("link.yaml"));
    fs::create_symlink("nowhere.yaml", ComposeStandIn::FilePath("dangling.yaml"));
    fs::create_symlink("loop.yaml", ComposeStandIn::FilePath("loop.yaml"));

    ExpectFound("link.yaml");
    ExpectMissing("dangling.yaml");
    ExpectMissing("loop.yaml");
}

TEST_F(ComposeFileCheck, ANameThatIsTooLongIsMissing) {
    ExpectMissing(std::string(256, 'n'));
    ExpectMissing(std::string(4096, 'n'));
    ExpectMissing(std::string(100000, 'n'));
}

TEST_F(ComposeFileCheck, TakesNamesOfAnyBytes) {
    for (const std::string name :
         {"\xc3\xa4\xe2\x82\xac.yaml", "\xff\xfe.yaml", "a b.yaml", "\x01\x1b[0m.yaml", "tab\tand\nline.yaml",
          "%s%n.yaml", "'quoted\".yaml", "-f"}) {
        ExpectMissing(name);
        ComposeStandIn::ProvideFile(name);
        ExpectFound(name);
    }
}

TEST_F(ComposeFileCheck, ADirectoryThatMayNotBeSearchedHidesItsFiles) {
    ComposeStandIn::ProvideFile("private/x.yaml");
    chmod(ComposeStandIn::FilePath("private").c_str(), 0);
    ASSERT_EQ(seteuid(65534), 0);

    ExpectMissing("private/x.yaml");

    ASSERT_EQ(seteuid(0), 0);
}

/// What the tool is told of a file: its path and the name of its project.
TEST_F(ComposeFileCheck, TheProjectIsNamedAfterTheFile) {
    ComposeStandIn{}.Install();
    fs::create_directories(ComposeStandIn::FilePath("folder"));
    for (const char* name : {"a.b.yml", ".env", "plain", "sub/x.yaml"}) {
        ComposeStandIn::ProvideFile(name);
    }
    const std::pair<const char*, const char*> expected[] = {
        {"web.yaml", "web"}, {"a.b.yml", "a.b"}, {".env", ".env"}, {"plain", "plain"},
        {"sub/x.yaml", "x"}, {"..", ".."},       {"folder/", ""},  {"folder", "folder"}};
    for (const auto& [name, project] : expected) {
        QxNJson::json result;
        fs::remove("/programs.log");

        EXPECT_EQ(handler.composeStop(name, result), 7);

        ASSERT_EQ(Sandbox::Calls().size(), 3U);
        for (const Sandbox::ProgramCall& call : Sandbox::Calls()) {
            EXPECT_EQ(call.arguments[2], ComposeStandIn::FilePath(name));
            EXPECT_EQ(call.arguments[4], project) << name;
        }
    }
}

}  // namespace
