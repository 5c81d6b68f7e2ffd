#include "daemon/MessageFollower.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// What others do right before this thread looks at a file by its name.
thread_local void (*s_beforeLook)() = nullptr;

}  // namespace

// Instead of the C library's.
int stat(const char* path, struct stat* status) noexcept {
    if (const auto act = std::exchange(s_beforeLook, nullptr)) {
        act();
    }
    return fstatat(AT_FDCWD, path, status, 0);
}

namespace {

constexpr const char* Path = "/tmp/messages/messages.log";

void Write(const std::string& bytes) { std::ofstream(Path, std::ios::app) << bytes; }

std::string Line(const std::string& text) {
    return R"({"time":"","severity":1,"number":1,"source":"","text":")" + text + "\"}\n";
}

void Append(const std::string& text) { Write(Line(text)); }

class MessageFiles : public testing::Test {
protected:
    MessageFiles() { std::filesystem::create_directories("/tmp/messages"); }

    void Follow() { boost::asio::co_spawn(io, follower.Run(), boost::asio::detached); }

    /// @return everything that has been read by now
    std::vector<std::string> Texts() {
        io.poll();
        std::vector<std::string> texts;
        for (const MessageFollower::Message& message : follower.Messages()) {
            texts.push_back(message.content["text"].get<std::string>());
        }
        return texts;
    }

    boost::asio::io_context io{1};
    MessageFollower follower{io, Path};
};

TEST_F(MessageFiles, MayBeRenamedWhileTheyAreRead) {
    Append("first");
    Follow();
    EXPECT_THAT(Texts(), ElementsAre("first"));

    Append("second");
    s_beforeLook = [] {
        Append("third");
        std::filesystem::rename(Path, std::string(Path) + ".1");
        Append("fourth");
    };
    EXPECT_THAT(Texts(), ElementsAre("first", "second", "third", "fourth"));
    EXPECT_EQ(s_beforeLook, nullptr) << "it was looked";
}

TEST_F(MessageFiles, NeedNotBeThereYet) {
    std::filesystem::remove("/tmp/messages");
    Follow();
    EXPECT_THAT(Texts(), IsEmpty());
    Append("first");
    EXPECT_THAT(Texts(), ElementsAre("first"));
}

TEST_F(MessageFiles, AreReadInWholeLines) {
    Follow();
    const std::string line = Line("whole");
    Write(line.substr(0, 60));
    EXPECT_THAT(Texts(), IsEmpty());
    Write(line.substr(60) + Line("next"));
    EXPECT_THAT(Texts(), ElementsAre("whole", "next"));
}

TEST_F(MessageFiles, MayHoldWhatIsNoMessage) {
    Follow();
    for (const char* line :
         {"no JSON", "", "[]", R"({"time":"","severity":1,"number":1,"source":""})",
          R"({"time":"","severity":1,"number":1,"source":"","text":1})",
          R"({"time":"","severity":"1","number":1,"source":"","text":"a number is wanted"})"}) {
        Write(std::string(line) + "\n");
    }
    Append(std::string(100 << 10, 'x'));
    EXPECT_THAT(Texts(), IsEmpty());
    Append("good");
    EXPECT_THAT(Texts(), ElementsAre("good"));
}

TEST_F(MessageFiles, AreKeptUpToABound) {
    Follow();
    for (int i = 1; i <= 1500; ++i) {
        Append(std::to_string(i));
    }
    const auto texts = Texts();
    ASSERT_EQ(texts.size(), 1000U);
    EXPECT_EQ(texts.front(), "501");
    EXPECT_EQ(texts.back(), "1500");
    EXPECT_EQ(follower.Messages().back().number, 1500U);
}

TEST_F(MessageFiles, AreReadFromTheirLastMegabyteOn) {
    Append("first");
    for (int i = 0; i < 200; ++i) {
        Append(std::string(10000, 'x'));
    }
    Append("last");
    Follow();
    const auto texts = Texts();
    EXPECT_EQ(texts.size(), (1U << 20) / Line(std::string(10000, 'x')).size() + 1);
    EXPECT_EQ(texts.back(), "last");
}

TEST_F(MessageFiles, AreReadAsAWholeOnceTheyAreFollowed) {
    Append("first");
    Follow();
    EXPECT_THAT(Texts(), ElementsAre("first"));
    std::filesystem::rename(Path, std::string(Path) + ".1");
    for (int i = 0; i < 200; ++i) {
        Append(std::string(10000, 'x'));
    }
    EXPECT_EQ(Texts().size(), 201U);
}

}  // namespace
