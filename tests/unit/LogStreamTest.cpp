#include "Board.h"
#include "LogStreamClient.h"
#include "QxCContainer.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <thread>

using QxNContainer::QxCContainer;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// The chunk handlers with a session and a client of their own.
class LogChunks : public testing::Test {
protected:
    LogChunks() { client.expectedErrors = &_errors.list; }

    size_t Demux(const std::string& chunk) {
        return _service.DemuxAndForwardLogChunk(_errors.list, session, &client, chunk.data(), chunk.size());
    }
    size_t Raw(const std::string& chunk) {
        return _service.ForwardRawLogChunk(_errors.list, session, &client, chunk.data(), chunk.size());
    }
    std::string Pending() const { return {session.pending.begin(), session.pending.end()}; }

    size_t RawOfLength(const char* data, size_t length) {
        return _service.ForwardRawLogChunk(_errors.list, session, &client, data, length);
    }

    QxCContainer::QxSLogStreamSession session;
    LogStreamClient client;

private:
    QxCContainer& _service = QxCContainer::GetInstance();
    LogStreamErrors _errors;
};

// --- Frames ---

TEST_F(LogChunks, AHeaderInTwoPiecesIsSentWholeAfterTheSecond) {
    const std::string frame = LogFrame("hello");

    EXPECT_EQ(Demux(frame.substr(0, 3)), 3U);
    EXPECT_THAT(client.Messages(), IsEmpty());
    EXPECT_EQ(Pending(), frame.substr(0, 3));
    EXPECT_EQ(Demux(frame.substr(3)), 10U);

    EXPECT_THAT(client.Messages(), ElementsAre("hello"));
    EXPECT_EQ(Pending(), "");
    EXPECT_TRUE(client.usualArguments);
}

TEST_F(LogChunks, TwoFramesAndTenBytesSendTwoAndKeepTen) {
    const std::string third = LogFrame("third");

    EXPECT_EQ(Demux(LogFrame("first") + LogFrame("second", 2) + third.substr(0, 10)), 37U);

    EXPECT_THAT(client.Messages(), ElementsAre("first", "second"));
    EXPECT_EQ(Pending(), third.substr(0, 10));
    EXPECT_EQ(Demux(third.substr(10)), 3U);
    EXPECT_EQ(client.Messages().back(), "third");
}

TEST_F(LogChunks, AFrameWithoutPayloadSendsNothing) {
    EXPECT_EQ(Demux(LogFrame("") + LogFrame("") + LogFrame("x")), 25U);

    EXPECT_THAT(client.Messages(), ElementsAre("x"));
    EXPECT_EQ(Pending(), "");
}

TEST_F(LogChunks, StreamAndReservedBytesAreNotLookedAt) {
    std::string frame = LogFrame("x", '\xff');
    frame[1] = frame[2] = frame[3] = '\xee';
    Demux(frame);
    EXPECT_THAT(client.Messages(), ElementsAre("x"));
}

TEST_F(LogChunks, AnEmptyChunkIsAccepted) {
    EXPECT_EQ(Demux(""), 0U);
    EXPECT_THAT(client.Messages(), IsEmpty());
}

TEST_F(LogChunks, AfterAnAbortNothingIsBuffered) {
    Demux("abc");
    session.abortFlag = true;

    EXPECT_EQ(Demux(LogFrame("late")), 0U);

    EXPECT_THAT(client.Messages(), IsEmpty());
    EXPECT_EQ(Pending(), "abc") << "neither more nor less than before";
}

TEST_F(LogChunks, AnAbortWithinAChunkCountsFromTheNextOne) {
    const std::string chunk = LogFrame("one") + LogFrame("two");
    client.onMessage = [this] { session.abortFlag = true; };

    EXPECT_EQ(Demux(chunk), chunk.size());
    EXPECT_EQ(Demux(chunk), 0U);

    EXPECT_THAT(client.Messages(), ElementsAre("one", "two"));
}

TEST_F(LogChunks, ANegativeResultOfASendIsAFailureToo) {
    client.accepted = 0;
    client.refusal = -1;

    EXPECT_EQ(Demux(LogFrame("one") + "tail"), 0U);
    EXPECT_EQ(Pending(), "");
    EXPECT_EQ(Raw("one"), 0U);

    EXPECT_EQ(client.refused, 2);
}

TEST_F(LogChunks, ARefusedFrameInTheChunkEmptiesPending) {
    client.accepted = 1;

    EXPECT_EQ(Demux(LogFrame("one") + LogFrame("two") + LogFrame("three") + "tail"), 0U);

    EXPECT_THAT(client.Messages(), ElementsAre("one"));
    EXPECT_EQ(client.refused, 1);
    EXPECT_EQ(Pending(), "");
}

TEST_F(LogChunks, ARefusedFrameOutOfPendingEmptiesIt) {
    const std::string frame = LogFrame("one");
    client.accepted = 0;
    Demux(frame.substr(0, 9));

    EXPECT_EQ(Demux(frame.substr(9) + LogFrame("two") + "tail"), 0U);

    EXPECT_EQ(client.refused, 1);
    EXPECT_EQ(Pending(), "");
}

TEST_F(LogChunks, AShortErrorTextOfPodmanIsNeverSent) {
    const std::string text = R"({"cause":"no such container","response":404})";
    EXPECT_EQ(Demux(text), text.size());
    EXPECT_THAT(client.Messages(), IsEmpty());
    EXPECT_EQ(Pending(), text);
}

TEST_F(LogChunks, WithoutAWebSocketEndTheTransfer) {
    LogStreamErrors errors;
    QxCContainer& service = QxCContainer::GetInstance();
    const std::string frame = LogFrame("x");

    EXPECT_EQ(service.DemuxAndForwardLogChunk(errors.list, session, nullptr, frame.data(), frame.size()), 0U);
    EXPECT_EQ(service.ForwardRawLogChunk(errors.list, session, nullptr, "x", 1), 0U);
}

// --- Terminal output ---

TEST_F(LogChunks, TerminalOutputIsSentAsItComes) {
    EXPECT_EQ(Raw(LogFrame("x")), 9U);
    EXPECT_EQ(Raw("\r\n"), 2U);

    EXPECT_THAT(client.Messages(), ElementsAre(LogFrame("x"), "\r\n"));
    EXPECT_TRUE(client.usualArguments);
    EXPECT_EQ(Pending(), "");
}

TEST_F(LogChunks, TheLengthOfTerminalOutputIsSentWith32Bits) {
    constexpr size_t length = (size_t{1} << 32) + 5;
    EXPECT_EQ(RawOfLength("hello", length), length);
    EXPECT_THAT(client.Messages(), ElementsAre("hello"));
}

TEST_F(LogChunks, EmptyTerminalOutputEndsTheTransferUnsent) {
    EXPECT_EQ(Raw(""), 0U);
    EXPECT_THAT(client.Messages(), IsEmpty());
}

TEST_F(LogChunks, TerminalOutputEndsWithTheAbortOrAFailedSend) {
    client.accepted = 0;
    EXPECT_EQ(Raw("x"), 0U);
    client.accepted = 1;
    session.abortFlag = true;
    EXPECT_EQ(Raw("x"), 0U);
    EXPECT_THAT(client.Messages(), IsEmpty());
}

// --- Sessions ---

/// A service whose containers have a terminal when their name begins with "tty".
class LogSessions : public testing::Test {
protected:
    LogSessions()
        : _podman(Board::PODMAN_SOCKET, [](ScriptedServer::Connection& connection) {
              const bool isTty = connection.request.Target().find("/tty") != std::string::npos;
              ScriptedServer::SendAnswer(
                  connection, 200, isTty ? R"({"Config":{"Tty":true}})" : R"({"Config":{"Tty":false}})");
          }) {}

    QxCContainer& service = QxCContainer::GetInstance();
    LogStreamClient first;
    LogStreamClient second;

private:
    ScriptedServer _podman;
};

TEST_F(LogSessions, BeginEmptyAndKnowTheTerminal) {
    const auto frames = service.RegisterLogStreamSession(&first, "plain");
    const auto raw = service.RegisterLogStreamSession(&second, "tty");

    EXPECT_FALSE(frames->abortFlag);
    EXPECT_THAT(frames->pending, IsEmpty());
    EXPECT_FALSE(frames->tty);
    EXPECT_TRUE(raw->tty);
}

TEST_F(LogSessions, CloseAbortsThatOfItsWebSocketAndKeepsIt) {
    const auto session = service.RegisterLogStreamSession(&first, "plain");
    const auto other = service.RegisterLogStreamSession(&second, "plain");

    QxCContainer::LogStreamCloseHandler("ignored", 7, &first);
    QxCContainer::LogStreamCloseHandler(nullptr, 0, &first);

    EXPECT_TRUE(session->abortFlag);
    EXPECT_FALSE(other->abortFlag);
    EXPECT_EQ(session.use_count(), 2) << "it is still in the table";
}

TEST_F(LogSessions, AReplacedOneIsReleasedAndNoLongerAborted) {
    const auto old = service.RegisterLogStreamSession(&first, "plain");
    const auto current = service.RegisterLogStreamSession(&first, "tty");

    QxCContainer::LogStreamCloseHandler(nullptr, 0, &first);

    EXPECT_NE(old, current);
    EXPECT_EQ(old.use_count(), 1);
    EXPECT_FALSE(old->abortFlag);
    EXPECT_TRUE(current->abortFlag);
}

TEST_F(LogSessions, UnregisteringForgetsWithoutAnAbort) {
    const auto session = service.RegisterLogStreamSession(&first, "plain");

    service.UnregisterLogStreamSession(&first);
    service.UnregisterLogStreamSession(&first);
    QxCContainer::LogStreamCloseHandler(nullptr, 0, &first);

    EXPECT_EQ(session.use_count(), 1);
    EXPECT_FALSE(session->abortFlag);
}

TEST_F(LogSessions, CloseOfAnUnknownWebSocketDoesNothing) {
    const auto session = service.RegisterLogStreamSession(&first, "plain");

    QxCContainer::LogStreamCloseHandler(nullptr, 0, &second);
    const auto unknown = service.RegisterLogStreamSession(&second, "plain");

    EXPECT_FALSE(session->abortFlag);
    EXPECT_FALSE(unknown->abortFlag);
}

TEST_F(LogSessions, CloseOfNoWebSocketDoesNothingEvenWhereThereIsASessionForNone) {
    const auto session = service.RegisterLogStreamSession(nullptr, "plain");
    Recording::Forget();

    QxCContainer::LogStreamCloseHandler(nullptr, 0, nullptr);

    EXPECT_FALSE(session->abortFlag);
    EXPECT_THAT(Recording::MutexCalls(), IsEmpty());
    service.UnregisterLogStreamSession(nullptr);
}

TEST_F(LogSessions, LockTheTableOnceForEachCallAndWithoutATimeLimit) {
    Recording::Forget();
    service.RegisterLogStreamSession(&first, "plain");
    EXPECT_THAT(Recording::MutexCalls(), ElementsAre("lock(-1)", "unlock"));
    for (LogStreamClient* client : {&first, &second}) {
        Recording::Forget();
        QxCContainer::LogStreamCloseHandler(nullptr, 0, client);
        EXPECT_THAT(Recording::MutexCalls(), ElementsAre("lock(-1)", "unlock"));
        Recording::Forget();
        service.UnregisterLogStreamSession(client);
        EXPECT_THAT(Recording::MutexCalls(), ElementsAre("lock(-1)", "unlock"));
    }
}

TEST_F(LogSessions, UseAMutexWithoutAName) {
    EXPECT_THAT(Recording::Events("QxCMutex("), testing::Contains("QxCMutex(null)"));
}

TEST(LogSession, OfAContainerThatCannotBeAskedReadsFrames) {
    LogStreamClient client;
    EXPECT_FALSE(QxCContainer::GetInstance().RegisterLogStreamSession(&client, "ghost")->tty);
}

TEST(LogSession, CloseOfNoWebSocketDoesNotEvenMakeTheService) {
    QxCContainer::LogStreamCloseHandler("ignored", 7, nullptr);
    EXPECT_THAT(Recording::Events(), IsEmpty());
}

TEST(LogSession, TableIsFreeWhilePodmanIsAsked) {
    std::atomic<bool> mayAnswer{false};
    const ScriptedServer podman(Board::PODMAN_SOCKET, [&](ScriptedServer::Connection& connection) {
        EXPECT_TRUE(Sandbox::Eventually([&] { return mayAnswer.load(); }));
        ScriptedServer::SendAnswer(connection, 200, R"({"Config":{"Tty":true}})");
    });
    QxCContainer& service = QxCContainer::GetInstance();
    LogStreamClient asking;
    LogStreamClient other;
    std::thread registration([&] { EXPECT_TRUE(service.RegisterLogStreamSession(&asking, "slow")->tty); });
    ASSERT_TRUE(Sandbox::Eventually([&] { return !podman.Requests().empty(); }));

    QxCContainer::LogStreamCloseHandler(nullptr, 0, &other);
    service.UnregisterLogStreamSession(&other);

    EXPECT_FALSE(mayAnswer) << "both have returned while the answer was missing";
    mayAnswer = true;
    registration.join();
}

}  // namespace
