#include "http/Tokens.h"

#include "QxNJson.h"
#include "Sandbox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/sha.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <thread>

using QxNHttp::Problem;
using QxNHttp::Right;
using QxNHttp::Status;
using QxNHttp::Tokens;
using QxNJson::json;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* Path = "/tmp/state/tokens.json";

std::string HashOf(const std::string& text) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    std::string hash;
    for (const unsigned char byte : digest) {
        char hex[3];
        snprintf(hex, sizeof(hex), "%02x", byte);
        hash += hex;
    }
    return hash;
}

std::string Entry(const std::string& name, const std::string& right, const std::string& hash) {
    return R"({"name": ")" + name + R"(", "right": ")" + right + R"(", "created": "", "sha256": ")" + hash +
           "\"}";
}

std::string File(const std::string& entries) { return "{\"tokens\": [" + entries + "]}"; }

/// @return the status of the problem that making a token ends in
std::optional<Status> WhyNot(Tokens& tokens, const std::string& name) {
    try {
        tokens.Make(name, Right::Look);
    } catch (const Problem& problem) {
        return problem.status;
    }
    return std::nullopt;
}

TEST(TokenFiles, AreNotNeeded) {
    const Tokens tokens(Path);
    EXPECT_TRUE(tokens.List().empty());
    EXPECT_EQ(tokens.Find("any").right, Right::None);
    EXPECT_FALSE(std::filesystem::exists(Path)) << "made only when there is a token";
}

TEST(TokenFiles, KeepTokens) {
    std::string look;
    std::string act;
    {
        Tokens tokens(Path);
        look = tokens.Make("looker", Right::Look);
        act = tokens.Make("actor", Right::Act);
        EXPECT_EQ(tokens.Find(look).name, "looker");
    }
    const Tokens tokens(Path);
    EXPECT_EQ(tokens.Find(look).name, "looker");
    EXPECT_EQ(tokens.Find(look).right, Right::Look);
    EXPECT_FALSE(tokens.Find(look).isLocal);
    EXPECT_EQ(tokens.Find(act).name, "actor");
    EXPECT_EQ(tokens.Find(act).right, Right::Act);
    for (const std::string& wrong : {std::string(), look + act, look.substr(0, 63), HashOf(look),
                                     tokens.List().at(0).hash, std::string("looker")}) {
        EXPECT_EQ(tokens.Find(wrong).right, Right::None);
        EXPECT_EQ(tokens.Find(wrong).name, "");
    }
}

TEST(TokenFiles, KeepNothingByWhichOneGetsIn) {
    Tokens tokens(Path);
    const std::string token = tokens.Make("panel", Right::Act);
    EXPECT_THAT(token, testing::MatchesRegex("[0-9a-f]{64}"));
    EXPECT_NE(tokens.Make("other", Right::Act), token);

    const std::string text = Sandbox::ReadFile(Path);
    EXPECT_THAT(text, Not(HasSubstr(token)));
    const json entry = json::parse(text)["tokens"][0];
    EXPECT_EQ(entry["name"], "panel");
    EXPECT_EQ(entry["right"], "act");
    EXPECT_EQ(entry["sha256"], HashOf(token));
    EXPECT_THAT(entry["created"].get<std::string>(), testing::MatchesRegex("20[0-9T:.-]+Z"));
}

TEST(TokenFiles, AreForTheirOwnerOnly) {
    const mode_t before = umask(0);
    // Left by somebody who let everybody read it.
    Sandbox::WriteFile(std::string(Path) + ".new", "x");
    Tokens tokens(Path);
    tokens.Make("panel", Right::Act);
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(Path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST(TokenFiles, KnowEachNameOnce) {
    Tokens tokens(Path);
    const std::string token = tokens.Make("panel", Right::Look);
    EXPECT_EQ(WhyNot(tokens, "panel"), Status::conflict);
    EXPECT_EQ(tokens.List().size(), 1U);
    EXPECT_EQ(tokens.Find(token).name, "panel");
}

/// Whoever comes in with a token does not wait for a disk that takes its time with another one.
TEST(TokenFiles, AreAskedWhileTheyAreWritten) {
    Tokens tokens(Path);
    const std::string known = tokens.Make("panel", Right::Act);
    const std::string fresh = std::string(Path) + ".new";
    ASSERT_EQ(mkfifo(fresh.c_str(), 0600), 0);  // opened for writing only when somebody reads
    auto making = std::async(std::launch::async, [&] { return WhyNot(tokens, "slow").has_value(); });
    EXPECT_EQ(making.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);

    auto asking = std::async(std::launch::async, [&] {
        return tokens.Find(known).name + " of " + std::to_string(tokens.List().size());
    });
    const auto asked = asking.wait_for(std::chrono::seconds(10));
    const QxNSupport::UniqueFd reader(
        static_cast<int>(TEMP_FAILURE_RETRY(open(fresh.c_str(), O_RDONLY | O_CLOEXEC))));

    EXPECT_EQ(asked, std::future_status::ready);
    EXPECT_EQ(asking.get(), "panel of 1");
    EXPECT_TRUE(making.get()) << "a pipe cannot be made safe on a disk";
    EXPECT_EQ(tokens.List().size(), 1U);
}

TEST(TokenFiles, ForgetTokens) {
    Tokens tokens(Path);
    const std::string gone = tokens.Make("gone", Right::Look);
    const std::string kept = tokens.Make("kept", Right::Look);
    EXPECT_FALSE(tokens.Remove("nobody"));
    EXPECT_TRUE(tokens.Remove("gone"));
    EXPECT_FALSE(tokens.Remove("gone"));
    const Tokens readAgain(Path);
    for (const Tokens* known : {&std::as_const(tokens), &readAgain}) {
        EXPECT_EQ(known->Find(gone).right, Right::None);
        EXPECT_EQ(known->Find(kept).right, Right::Look);
    }
    EXPECT_EQ(WhyNot(tokens, "gone"), std::nullopt) << "the name is free again";
}

TEST(TokenFiles, ThatAreMalformedAreRefused) {
    const std::string good = Entry("panel", "look", HashOf("token"));
    Sandbox::WriteFile(Path, File(good));
    EXPECT_EQ(Tokens(Path).Find("token").name, "panel");
    for (const std::string& text : {std::string(),
                                    std::string("nonsense"),
                                    std::string("[]"),
                                    std::string("{}"),
                                    std::string("5"),
                                    std::string(R"({"tokens": {}})"),
                                    std::string(R"({"tokens": "x"})"),
                                    File("5"),
                                    File("{}"),
                                    File("[]"),
                                    File(good).substr(0, 100),
                                    File(good) + "x",
                                    File(Entry("", "look", HashOf("token"))),
                                    File(Entry("a b", "look", HashOf("token"))),
                                    File(Entry("panel", "rule", HashOf("token"))),
                                    File(Entry("panel", "", HashOf("token"))),
                                    File(Entry("panel", "look", HashOf("token") + "0")),
                                    File(Entry("panel", "look", "")),
                                    File(good + ", " + Entry("other", "all", HashOf("other"))),
                                    File(std::string(2 << 20, ' ') + good)}) {
        Sandbox::WriteFile(Path, text);
        try {
            const Tokens tokens(Path);
            ADD_FAILURE() << text.substr(0, 200);
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr(std::string(Path))) << text.substr(0, 200);
        }
        EXPECT_EQ(Sandbox::ReadFile(Path), text) << "to be mended";
    }
}

TEST(TokenFiles, ThatCannotBeReadAreRefused) {
    std::filesystem::create_directories(Path);
    EXPECT_THROW(Tokens{Path}, std::runtime_error);
}

/// Nothing is lost when a file cannot be written, neither there nor in memory.
class TokenFilesOnBadDisks : public testing::Test {
protected:
    TokenFilesOnBadDisks() {
        std::filesystem::create_directories("/tmp/state");
        EXPECT_EQ(mount("tmpfs", "/tmp/state", "tmpfs", 0, "size=8k"), 0);
        tokens.emplace(Path);
        token = tokens->Make("panel", Right::Look);
        before = Sandbox::ReadFile(Path);
    }
    ~TokenFilesOnBadDisks() override { umount2("/tmp/state", MNT_DETACH); }

    void ExpectNothingLost() {
        EXPECT_EQ(WhyNot(*tokens, "other"), Status::internal_server_error);
        EXPECT_THROW(tokens->Remove("panel"), Problem);
        EXPECT_EQ(tokens->List().size(), 1U);
        EXPECT_EQ(tokens->Find(token).name, "panel");
        EXPECT_EQ(Sandbox::ReadFile(Path), before);
        EXPECT_EQ(Tokens(Path).Find(token).name, "panel");
        EXPECT_FALSE(std::filesystem::exists(std::string(Path) + ".new"));
    }

    std::optional<Tokens> tokens;
    std::string token;
    std::string before;
};

TEST_F(TokenFilesOnBadDisks, LoseNothingWhenThereIsNoRoom) {
    std::ofstream("/tmp/state/filler") << std::string(4096, 'x') << std::flush;
    ExpectNothingLost();
}

TEST_F(TokenFilesOnBadDisks, LoseNothingWhenTheDiskIsReadOnly) {
    ASSERT_EQ(mount(nullptr, "/tmp/state", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    ExpectNothingLost();
    try {
        tokens->Make("other", Right::Look);
        ADD_FAILURE();
    } catch (const Problem& problem) {
        EXPECT_THAT(problem.what(), HasSubstr("/tmp/state/tokens.json: Read-only file system"));
    }
}

TEST(TokenFiles, MayBeUsedByManyThreads) {
    Tokens tokens(Path);
    const std::string token = tokens.Make("panel", Right::Act);
    std::vector<std::thread> threads;
    for (int at = 0; at < 4; ++at) {
        threads.emplace_back([&, name = "thread" + std::to_string(at)] {
            for (int turn = 0; turn < 20; ++turn) {
                const std::string own = tokens.Make(name, Right::Look);
                EXPECT_EQ(tokens.Find(own).name, name);
                EXPECT_EQ(tokens.Find(token).name, "panel");
                EXPECT_TRUE(tokens.Remove(name));
                EXPECT_GE(tokens.List().size(), 1U);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(tokens.List().size(), 1U);
}

TEST(Rights, HaveNames) {
    EXPECT_EQ(QxNHttp::TextOf(Right::Look), "look");
    EXPECT_EQ(QxNHttp::TextOf(Right::Act), "act");
    EXPECT_EQ(QxNHttp::RightOf("look"), Right::Look);
    EXPECT_EQ(QxNHttp::RightOf("act"), Right::Act);
    for (const char* text : {"", "Act", "none", "actor"}) {
        EXPECT_EQ(QxNHttp::RightOf(text), Right::None);
    }
}

}  // namespace
