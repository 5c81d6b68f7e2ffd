#include "CurlHandlerOptions.h"
#include "QxCCurlHandler.h"
#include "Recording.h"
#include "Sandbox.h"

#include <gmock/gmock.h>
#include <stdexcept>
#include <utility>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// What the handler hides: the callbacks that it gives to libcurl.
struct CurlHandlerTest {
    static size_t Write(std::string& target, std::string bytes, size_t size, size_t count) {
        return QxCCurlHandler::WriteCallback(bytes.data(), size, count, &target);
    }
    static size_t StreamWrite(QxCCurlHandler* handler, std::string bytes, size_t size, size_t count) {
        return QxCCurlHandler::StreamWriteCallback(bytes.data(), size, count, handler);
    }
    static size_t Read(char* buffer, size_t size, size_t count, FILE* file) {
        return QxCCurlHandler::ReadCallback(buffer, size, count, file);
    }
    static int Progress(QxCCurlHandler* handler) {
        return QxCCurlHandler::ProgressCallback(handler, 1, 2, 3, 4);
    }
};

namespace {

class CurlHandlerOptions : public testing::Test {
protected:
    CurlHandlerOptions() { CurlOptions::Record(); }

    /// @return the options set since the last call
    static std::vector<std::string> Set() {
        std::vector<std::string> options = CurlOptions::Recorded();
        CurlOptions::Record();
        return options;
    }

    QxCCurlHandler curl;
};

TEST_F(CurlHandlerOptions, AreSetAtOnceByTheSetters) {
    curl.SetUrl("http://d/x");
    EXPECT_THAT(Set(), ElementsAre("URL=http://d/x"));
    curl.SetUnixSocket("/run/s");
    EXPECT_THAT(Set(), ElementsAre("CONNECT_TO=null", "UNIX_SOCKET_PATH=/run/s"));
    curl.SetTcpSocket(2375);
    EXPECT_THAT(Set(), ElementsAre("UNIX_SOCKET_PATH=null", "CONNECT_TO=::127.0.0.1:2375"));
    curl.SetHeaders({"A: 1", "B: 2"});
    EXPECT_THAT(Set(), ElementsAre("HTTPHEADER=A: 1|B: 2"));
    curl.SetHeaders({});
    EXPECT_THAT(Set(), ElementsAre("free A: 1|B: 2", "HTTPHEADER=null"));
    curl.SetPayload("12345");
    EXPECT_THAT(Set(), ElementsAre("POSTFIELDS=set", "POSTFIELDSIZE=5"));
    curl.SetStreamCallback([](const char*, size_t length) { return length; });
    const std::atomic<bool> abort{false};
    curl.SetAbortFlag(&abort);
    EXPECT_THAT(Set(), IsEmpty());
}

TEST_F(CurlHandlerOptions, OfPortsAreWrittenWithoutLeadingZeros) {
    curl.SetTcpSocket(0);
    curl.SetTcpSocket(65535);
    EXPECT_THAT(Set(),
                ElementsAre("UNIX_SOCKET_PATH=null", "CONNECT_TO=::127.0.0.1:0", "UNIX_SOCKET_PATH=null",
                            "free ::127.0.0.1:0", "CONNECT_TO=::127.0.0.1:65535"));
}

TEST_F(CurlHandlerOptions, FreeTheOldListBeforeTheNewOneIsSet) {
    curl.SetTcpSocket(1);
    curl.SetHeaders({"A: 1"});
    Set();
    curl.SetHeaders({"B: 2"});
    EXPECT_THAT(Set(), ElementsAre("free A: 1", "HTTPHEADER=B: 2"));
    curl.SetTcpSocket(2);
    EXPECT_THAT(Set(),
                ElementsAre("UNIX_SOCKET_PATH=null", "free ::127.0.0.1:1", "CONNECT_TO=::127.0.0.1:2"));
    curl.SetUnixSocket("/run/s");
    EXPECT_THAT(Set(), ElementsAre("free ::127.0.0.1:2", "CONNECT_TO=null", "UNIX_SOCKET_PATH=/run/s"));
}

TEST_F(CurlHandlerOptions, OfMethodsAreResetBeforeOneIsSet) {
    curl.SetMethodType(QxCCurlHandler::Get);
    EXPECT_THAT(Set(), ElementsAre("CUSTOMREQUEST=null", "POST=0", "HTTPGET=0", "HTTPGET=1"));
    curl.SetMethodType(QxCCurlHandler::Delete);
    EXPECT_THAT(Set(), ElementsAre("CUSTOMREQUEST=null", "POST=0", "HTTPGET=0", "CUSTOMREQUEST=DELETE"));
    curl.SetMethodType(static_cast<QxCCurlHandler::MethodType>(-1));
    EXPECT_THAT(Set(), ElementsAre("CUSTOMREQUEST=null", "POST=0", "HTTPGET=0"));
    curl.SetPayload("body");
    Set();
    curl.SetMethodType(QxCCurlHandler::Post);
    EXPECT_THAT(Set(), ElementsAre("CUSTOMREQUEST=null", "POST=0", "HTTPGET=0", "POST=1"));
}

TEST_F(CurlHandlerOptions, OfMethodsBelongToTheirNumbers) {
    static_assert(sizeof(QxCCurlHandler::MethodType) == 4);
    const std::pair<int, const char*> expected[] = {
        {0, "HTTPGET=1"}, {1, "POST=1"}, {2, "CUSTOMREQUEST=DELETE"}};
    for (const auto& [number, option] : expected) {
        curl.SetMethodType(static_cast<QxCCurlHandler::MethodType>(number));
        EXPECT_THAT(Set(), Contains(option));
    }
}

TEST_F(CurlHandlerOptions, OfAPostWithoutABodySayThatItIsEmpty) {
    curl.SetMethodType(QxCCurlHandler::Post);
    EXPECT_THAT(Set(), ElementsAre("CUSTOMREQUEST=null", "POST=0", "HTTPGET=0", "POST=1", "POSTFIELDSIZE=0"));
}

TEST_F(CurlHandlerOptions, OfAnUploadComeInTheirOrder) {
    Sandbox::WriteFile("/tmp/file", "1234567");
    curl.UploadFile("/tmp/file");
    EXPECT_THAT(Set(),
                ElementsAre("POSTFIELDS=null", "READFUNCTION=set", "READDATA=set", "POSTFIELDSIZE_LARGE=7"));
    curl.UploadFile("/tmp/missing");
    EXPECT_THAT(Set(), IsEmpty());
}

TEST_F(CurlHandlerOptions, OfTheTransferDependOnCallbackAndFlag) {
    curl.Execute();
    EXPECT_THAT(Set(), ElementsAre("WRITEFUNCTION=set", "WRITEDATA=set", "perform"));
    const std::atomic<bool> abort{false};
    curl.SetAbortFlag(&abort);
    curl.Execute();
    EXPECT_THAT(Set(), ElementsAre("WRITEFUNCTION=set", "WRITEDATA=set", "NOPROGRESS=0",
                                   "XFERINFOFUNCTION=set", "XFERINFODATA=set", "perform"));
    curl.SetAbortFlag(nullptr);
    curl.Execute();
    EXPECT_THAT(Set(), ElementsAre("WRITEFUNCTION=set", "WRITEDATA=set", "perform"));
}

TEST_F(CurlHandlerOptions, AreAllSetWhenTheRequestIsAnnouncedAndNothingIsSentBefore) {
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    curl.SetUrl("http://d/x");
    curl.SetUnixSocket("/run/nobody.sock");
    const std::atomic<bool> abort{false};
    curl.SetAbortFlag(&abort);
    Set();
    int announced = 0;
    Recording::TheScript().onEvent = [&](const std::string& event) {
        if (event.find("Executing request") != std::string::npos) {
            ++announced;
            EXPECT_THAT(Set(), ElementsAre("WRITEFUNCTION=set", "WRITEDATA=set", "NOPROGRESS=0",
                                           "XFERINFOFUNCTION=set", "XFERINFODATA=set"));
        }
    };

    curl.Execute();

    EXPECT_EQ(announced, 1);
    EXPECT_THAT(Set(), ElementsAre("perform"));
}

TEST(CurlHandlerEnd, ClosesTheUploadFileBeforeTheHandleGoes) {
    Sandbox::WriteFile("/tmp/file", "x");
    CurlOptions::Record();
    CurlOptions::OnCleanup(
        [] { EXPECT_THAT(Sandbox::OpenDescriptors(), Not(Contains(HasSubstr("/tmp/file")))); });
    {
        QxCCurlHandler curl;
        curl.UploadFile("/tmp/file");
    }
    EXPECT_EQ(CurlOptions::Recorded().back(), "cleanup");
}

TEST(CurlHandlerEnd, TakesCallbackListsAndFileBeforeTheHandle) {
    Sandbox::WriteFile("/tmp/file", "x");
    const auto noteEnd = [](const int* value) {
        delete value;
        CurlOptions::Note("callback");
    };
    {
        QxCCurlHandler curl;
        curl.UploadFile("/tmp/file");
        curl.SetHeaders({"A: 1"});
        curl.SetTcpSocket(1);
        curl.SetStreamCallback([token = std::shared_ptr<int>(new int, noteEnd)](const char*, size_t length) {
            return token != nullptr ? length : 0;
        });
        CurlOptions::Record();
    }
    EXPECT_THAT(CurlOptions::Recorded(),
                ElementsAre("callback", "free ::127.0.0.1:1", "free A: 1", "fclose", "cleanup"));
}

TEST(CurlHandlerWithoutAHandle, DoesNothingAndGivesNothing) {
    Sandbox::WriteFile("/tmp/file", "x");
    CurlOptions::FailInit();
    CurlOptions::Record();
    {
        QxCCurlHandler curl;
        const std::atomic<bool> abort{false};
        curl.SetUrl("http://d/x");
        curl.SetTcpSocket(1);
        curl.SetUnixSocket("/run/s");
        curl.SetHeaders({"A: 1"});
        curl.SetPayload("text");
        curl.SetMethodType(QxCCurlHandler::Post);
        curl.UploadFile("/tmp/file");
        curl.SetStreamCallback([](const char*, size_t length) { return length; });
        curl.SetAbortFlag(&abort);

        EXPECT_EQ(curl.Execute(), "");
        EXPECT_EQ(curl.GetHttpCode(), 0);
    }
    EXPECT_THAT(CurlOptions::Recorded(), Not(Contains("cleanup")));
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST(CurlCallbacks, WriteAppendsAndTakesAll) {
    std::string target = "a";
    EXPECT_EQ(CurlHandlerTest::Write(target, "bcdefg", 2, 3), 6U);
    EXPECT_EQ(target, "abcdefg");
    EXPECT_EQ(CurlHandlerTest::Write(target, "", 1, 0), 0U);
}

TEST(CurlCallbacks, WriteOfMoreThanATextCanHoldLeavesExecuteAsALengthError) {
    std::string target = "a";
    EXPECT_EQ(CurlHandlerTest::Write(target, "x", 1, target.max_size()), 0U) << "libcurl must not see it";
    EXPECT_EQ(target, "a");

    QxCCurlHandler curl;
    CurlOptions::ClaimBody(1);
    EXPECT_EQ(curl.Execute(), "x") << "what happened outside of it does not count";
    CurlOptions::ClaimBody(target.max_size() + 1);
    EXPECT_THROW(curl.Execute(), std::length_error);
    CurlOptions::ClaimBody(1);
    EXPECT_EQ(curl.Execute(), "x");
}

TEST(CurlCallbacks, StreamWriteDropsWithoutAHandlerOrACallback) {
    EXPECT_EQ(CurlHandlerTest::StreamWrite(nullptr, "abcd", 2, 2), 4U);
    QxCCurlHandler curl;
    EXPECT_EQ(CurlHandlerTest::StreamWrite(&curl, "abcd", 1, 4), 4U);
}

TEST(CurlCallbacks, StreamWriteReturnsWhatTheCallbackDoes) {
    QxCCurlHandler curl;
    std::string received;
    curl.SetStreamCallback([&](const char* data, size_t length) {
        received.assign(data, length);
        return size_t{77};
    });
    EXPECT_EQ(CurlHandlerTest::StreamWrite(&curl, "abcdef", 3, 2), 77U);
    EXPECT_EQ(received, "abcdef");
}

TEST(CurlCallbacks, ReadReturnsWholeItemsOfTheFile) {
    Sandbox::WriteFile("/tmp/file", "1234567");
    FILE* file = fopen("/tmp/file", "rb");
    char buffer[8] = {};
    EXPECT_EQ(CurlHandlerTest::Read(buffer, 3, 2, file), 2U);
    EXPECT_STREQ(buffer, "123456");
    EXPECT_EQ(CurlHandlerTest::Read(buffer, 1, 8, file), 1U);
    EXPECT_EQ(CurlHandlerTest::Read(buffer, 1, 8, file), 0U);
    fclose(file);
}

TEST(CurlCallbacks, ProgressEndsTheTransferOnlyWhenTheFlagIsSet) {
    EXPECT_EQ(CurlHandlerTest::Progress(nullptr), 0);
    QxCCurlHandler curl;
    EXPECT_EQ(CurlHandlerTest::Progress(&curl), 0);
    std::atomic<bool> abort{false};
    curl.SetAbortFlag(&abort);
    EXPECT_EQ(CurlHandlerTest::Progress(&curl), 0);
    abort = true;
    EXPECT_EQ(CurlHandlerTest::Progress(&curl), 1);
}

}  // namespace
