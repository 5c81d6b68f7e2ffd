#include "MessageFile.h"
#include "PlatformTest.h"
#include "QxCMessageManagerClient.h"
#include "Sandbox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <thread>

using namespace PlatformTest;
using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char* File = "/run/quolex/messages.jsonl";
constexpr const char* Configuration = "/etc/quolex/platform.ini";

/// @return what was reported about the delivery
std::vector<std::string> send(const std::string& text, int severity = QxNSeverity::Info) {
    const auto errors = newErrorList();
    const auto messages = newMessageList(100, 8192);
    messages->setMessage(severity, 0, 151, "Source", "%s", text.c_str());
    QxCMessageManagerClient::getInstance()->sendMessageList(errors.get(), messages.get());
    return texts(*errors);
}

void sendMany(int count, char letter) {
    for (int i = 0; i < count; ++i) {
        send(std::string(800, letter));
    }
}

std::vector<nlohmann::json> sentMessages(const std::string& path = File) {
    std::vector<nlohmann::json> messages;
    for (const std::string& line : lines(Sandbox::ReadFile(path))) {
        messages.push_back(nlohmann::json::parse(line));
    }
    return messages;
}

TEST(MessageManager, WritesOneJsonLinePerMessage) {
    ASSERT_THAT(send("text with \"quotes\"\nand two lines", QxNSeverity::Error), IsEmpty());

    const auto messages = sentMessages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].size(), 5U);
    EXPECT_THAT(messages[0]["time"].get<std::string>(),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{3}Z"));
    EXPECT_EQ(messages[0]["severity"], 3);
    EXPECT_EQ(messages[0]["number"], 151);
    EXPECT_EQ(messages[0]["source"], "Source");
    EXPECT_EQ(messages[0]["text"], "text with \"quotes\"\nand two lines");
}

TEST(MessageManager, WritesTheTimeInUtc) {
    ::setenv("TZ", "UTC-5", 1);
    ::tzset();
    const std::time_t before = std::time(nullptr);

    send("text");

    std::tm sent{};
    const std::string text = sentMessages().at(0)["time"];
    ASSERT_NE(::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &sent), nullptr);
    EXPECT_NEAR(static_cast<double>(::timegm(&sent)), static_cast<double>(before), 10.0);
}

TEST(MessageManager, AppendsTheMessagesOfACallInOrder) {
    const auto messages = newMessageList();
    messages->setMessage(QxNSeverity::Info, 0, 1, "test", "first");
    messages->setMessage(QxNSeverity::Info, 0, 2, "test", "second");

    send("earlier");
    QxCMessageManagerClient::getInstance()->sendMessageList(nullptr, messages.get());

    const auto sent = sentMessages();
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[1]["text"], "first");
    EXPECT_EQ(sent[2]["text"], "second");
    EXPECT_EQ(messages->getMessages().size(), 2U) << "the list stays as it is";
}

TEST(MessageManager, ReplacesBytesThatAreNotUtf8) {
    send("broken \xff text");

    EXPECT_EQ(sentMessages().at(0)["text"], "broken \xef\xbf\xbd text");
}

TEST(MessageManager, SendsNothingForNullAndEmptyLists) {
    const auto empty = newMessageList();

    QxCMessageManagerClient::getInstance()->sendMessageList(nullptr, nullptr);
    QxCMessageManagerClient::getInstance()->sendMessageList(nullptr, empty.get());

    EXPECT_FALSE(fs::exists(File));
}

TEST(MessageManager, WritesToTheConfiguredFile) {
    Sandbox::WriteFile(Configuration, "[Messages]\nFile = /var/lib/other/messages\n");

    send("text");

    EXPECT_EQ(sentMessages("/var/lib/other/messages").size(), 1U);
    EXPECT_FALSE(fs::exists(File));
}

TEST(MessageManager, RenamesAFileThatWouldGrowBeyondItsSizeAndBeginsAnew) {
    Sandbox::WriteFile(Configuration, "[Messages]\nMaxBytes = 4096\n");
    const std::string text(1500, 'x');

    for (int i = 0; i < 3; ++i) {
        send(text);
    }

    EXPECT_EQ(sentMessages().size(), 1U);
    EXPECT_EQ(sentMessages(std::string(File) + ".1").size(), 2U);
}

TEST(MessageManager, KeepsTheFileBelowItsSizeHoweverMuchIsSent) {
    Sandbox::WriteFile(Configuration, "[Messages]\nMaxBytes = 4096\n");

    for (int i = 0; i < 200; ++i) {
        send("a text of some length for the user of the board");
        ASSERT_LE(fs::file_size(File), 4096U);
    }

    EXPECT_LE(fs::file_size(std::string(File) + ".1"), 4096U);
    EXPECT_EQ(std::distance(fs::directory_iterator("/run/quolex"), {}), 2);
}

TEST(MessageManager, ReportsAFileThatCannotBeWritten) {
    fs::create_directories(File);

    const auto errors = send("text");

    ASSERT_EQ(errors.size(), 1U);
    EXPECT_THAT(errors[0], HasSubstr(File));
    EXPECT_THAT(errors[0], HasSubstr("Is a directory"));
}

TEST(MessageManager, AcceptsAFailureWithoutAListForErrors) {
    fs::create_directories(File);
    const auto messages = newMessageList();
    messages->setMessage(QxNSeverity::Info, 0, 1, "test", "text");

    QxCMessageManagerClient::getInstance()->sendMessageList(nullptr, messages.get());

    EXPECT_TRUE(fs::is_empty(File));
}

TEST(MessageManager, LeavesNoPartOfALineOnAFullDisk) {
    fs::create_directories("/run/quolex");
    ASSERT_EQ(::mount("tmpfs", "/run/quolex", "tmpfs", 0, "size=16k"), 0);
    std::vector<std::string> errors;

    for (int i = 0; i < 20 && errors.empty(); ++i) {
        errors = send(std::string(2000, 'x'));
    }

    ASSERT_EQ(errors.size(), 1U);
    EXPECT_THAT(errors[0], HasSubstr("No space left on device"));
    EXPECT_FALSE(sentMessages().empty()) << "all of them complete, or parsing had failed";
    EXPECT_EQ(Sandbox::ReadFile(File).back(), '\n');
}

TEST(MessageManager, WritesWithoutTheLockWhenAnotherProgramKeepsIt) {
    send("first");
    const int holder = ::open(File, O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(holder, LOCK_EX), 0);

    EXPECT_THAT(send("second"), IsEmpty());

    EXPECT_EQ(sentMessages().size(), 2U);
    ::close(holder);
}

TEST(MessageManager, MixesNoLinesOfTwoProcesses) {
    constexpr int Rounds = 300;
    {
        const ChildProcess other([] { sendMany(Rounds, 'b'); });
        sendMany(Rounds, 'a');
    }

    int fromHere = 0;
    int fromThere = 0;
    for (const auto& message : sentMessages()) {
        fromHere += message["text"] == std::string(800, 'a') ? 1 : 0;
        fromThere += message["text"] == std::string(800, 'b') ? 1 : 0;
    }
    EXPECT_EQ(fromHere, Rounds);
    EXPECT_EQ(fromThere, Rounds);
}

TEST(MessageManager, LosesNoLineWhenTwoProcessesRenameTheFile) {
    Sandbox::WriteFile(Configuration, "[Messages]\nMaxBytes = 65536\n");
    {
        const ChildProcess other([] { sendMany(50, 'b'); });
        sendMany(50, 'a');
    }

    const std::size_t kept = sentMessages().size() + sentMessages(std::string(File) + ".1").size();
    EXPECT_EQ(kept, 100U) << "they fill the file once, and a half";
}

TEST(MessageManager, KeepsTheMessagesOfACallTogetherAmongThreads) {
    const auto sendPairs = [](const char* text) {
        for (int i = 0; i < 100; ++i) {
            const auto pair = newMessageList();
            pair->setMessage(QxNSeverity::Info, 0, 1, "test", "%s", text);
            pair->setMessage(QxNSeverity::Info, 0, 2, "test", "%s", text);
            QxCMessageManagerClient::getInstance()->sendMessageList(nullptr, pair.get());
        }
    };
    std::thread other(sendPairs, "b");

    sendPairs("a");
    other.join();

    const auto messages = sentMessages();
    ASSERT_EQ(messages.size(), 400U);
    for (std::size_t i = 0; i < messages.size(); i += 2) {
        EXPECT_EQ(messages[i]["text"], messages[i + 1]["text"]);
    }
}

TEST(MessageManager, KeepsNoDescriptorOpen) {
    send("first");
    const auto before = Sandbox::OpenDescriptors();

    for (int i = 0; i < 50; ++i) {
        send("text");
    }

    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
}

TEST(MessageFile, IsBegunAnewAfterAnotherProgramRemovedIt) {
    QxNLinuxPlatform::MessageFile file("/run/test/file", 4096);
    file.append({"first\n"});
    fs::remove("/run/test/file");

    EXPECT_EQ(file.append({"second\n"}), 0);

    EXPECT_EQ(Sandbox::ReadFile("/run/test/file"), "second\n");
}

TEST(MessageFile, WritesToTheNewFileWhenItIsRenamedWhileItWaits) {
    const std::string path = "/run/test/file";
    QxNLinuxPlatform::MessageFile file(path, 4096);
    file.append({"first\n"});
    const int holder = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(holder, LOCK_EX), 0);
    std::thread writer([&file] { file.append({"second\n"}); });
    ASSERT_TRUE(Sandbox::Eventually([&path] {
        const auto descriptors = Sandbox::OpenDescriptors();
        return std::count_if(descriptors.begin(), descriptors.end(),
                             [&path](const std::string& text) { return text.ends_with(' ' + path); }) == 2;
    }));

    fs::rename(path, path + ".1");
    ::close(holder);
    writer.join();

    EXPECT_EQ(Sandbox::ReadFile(path), "second\n");
    EXPECT_EQ(Sandbox::ReadFile(path + ".1"), "first\n");
}

TEST(MessageFile, TakesALineLongerThanItsSize) {
    QxNLinuxPlatform::MessageFile file("/run/test/file", 10);
    const std::string line = std::string(50, 'x') + '\n';

    EXPECT_EQ(file.append({line}), 0);
    EXPECT_EQ(file.append({line}), 0);

    EXPECT_EQ(Sandbox::ReadFile("/run/test/file"), line);
    EXPECT_EQ(Sandbox::ReadFile("/run/test/file.1"), line);
}

/// Stands in for the system journal.
class Journal {
public:
    Journal() : _socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        fs::create_directories("/run/systemd/journal");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/run/systemd/journal/socket");
        const void* const generic = &address;
        if (::bind(_socket, static_cast<const sockaddr*>(generic), sizeof(address)) != 0) {
            throw std::runtime_error("cannot stand in for the journal");
        }
    }
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    ~Journal() { close(); }

    void close() {
        if (_socket >= 0) {
            ::close(_socket);
        }
        _socket = -1;
    }

    std::vector<std::string> receive() const {
        std::string entry(65536, '\0');
        const ssize_t length = ::recv(_socket, entry.data(), entry.size(), 0);
        entry.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return lines(entry);
    }

private:
    int _socket;
};

TEST(MessageManager, SendsToTheSystemJournalWhereThereIsOne) {
    const Journal journal;

    EXPECT_THAT(send("text", QxNSeverity::Error), IsEmpty());

    EXPECT_THAT(journal.receive(), testing::UnorderedElementsAre("PRIORITY=3", "QUOLEX_NUMBER=151",
                                                                 "SYSLOG_IDENTIFIER=Source", "MESSAGE=text"));
    EXPECT_EQ(sentMessages().size(), 1U) << "the file receives it too";
}

TEST(MessageManager, GivesTheJournalAPriorityForEachSeverity) {
    const Journal journal;

    send("text", QxNSeverity::Warning);
    send("text", QxNSeverity::Info);

    EXPECT_THAT(journal.receive(), testing::Contains("PRIORITY=4"));
    EXPECT_THAT(journal.receive(), testing::Contains("PRIORITY=6"));
}

TEST(MessageManager, ReportsAJournalThatDoesNotListen) {
    Journal journal;
    journal.close();

    const auto errors = send("text");

    ASSERT_EQ(errors.size(), 1U);
    EXPECT_THAT(errors[0], HasSubstr("journal"));
    EXPECT_EQ(sentMessages().size(), 1U);
}

}  // namespace
