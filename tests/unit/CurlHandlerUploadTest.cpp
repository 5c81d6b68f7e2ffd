#include "CurlHandlerOptions.h"
#include "QxCCurlHandler.h"
#include "Recording.h"
#include "Sandbox.h"
#include "ScriptedServer.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>
#include <fstream>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char* SocketPath = "/run/scripted.sock";
constexpr const char* MissingLine =
    "[ERROR] Quolex Container CURL Handler:Error opening file: /tmp/missing\n";

/// A POST request to a server that answers with the body it received.
class Upload : public testing::Test {
protected:
    Upload() : _server(SocketPath, ScriptedServer::Echo()) {
        curl.SetUnixSocket(SocketPath);
        curl.SetMethodType(QxCCurlHandler::Post);
        curl.SetUrl("http://d/x");
    }

    ScriptedServer::Request Asked() const { return _server.Requests().at(0); }

    QxCCurlHandler curl;

private:
    ScriptedServer _server;
};

TEST_F(Upload, SendsTheFileWithItsSize) {
    Sandbox::WriteFile("/tmp/file", std::string("a\0b", 3));
    curl.UploadFile("/tmp/file");

    EXPECT_EQ(curl.Execute(), std::string("a\0b", 3));

    EXPECT_EQ(Asked().line, "POST /x HTTP/1.1");
    EXPECT_EQ(Asked().Header("Content-Length"), "3");
    EXPECT_THAT(Recording::Logs(), IsEmpty());
}

TEST_F(Upload, SendsALargeFile) {
    const std::string content(5000000, 'z');
    Sandbox::WriteFile("/tmp/file", content);
    curl.UploadFile("/tmp/file");

    EXPECT_TRUE(curl.Execute() == content);
}

TEST_F(Upload, SendsAnEmptyFileAsAnEmptyBody) {
    Sandbox::WriteFile("/tmp/file", "");
    curl.UploadFile("/tmp/file");

    EXPECT_EQ(curl.Execute(), "");
    EXPECT_EQ(Asked().Header("Content-Length"), "0");
    EXPECT_EQ(curl.GetHttpCode(), 200);
}

TEST_F(Upload, TakesTheSizeAtTheTimeOfTheCall) {
    Sandbox::WriteFile("/tmp/file", "12345");
    curl.UploadFile("/tmp/file");
    std::ofstream("/tmp/file", std::ios::app) << "678";

    EXPECT_EQ(curl.Execute(), "12345");
}

TEST_F(Upload, KeepsTheMethodDelete) {
    Sandbox::WriteFile("/tmp/file", "body");
    curl.SetMethodType(QxCCurlHandler::Delete);
    curl.UploadFile("/tmp/file");

    EXPECT_EQ(curl.Execute(), "body");
    EXPECT_EQ(Asked().line, "DELETE /x HTTP/1.1");
}

TEST_F(Upload, MakesAGetAPost) {
    Sandbox::WriteFile("/tmp/file", "body");
    curl.SetMethodType(QxCCurlHandler::Get);
    curl.UploadFile("/tmp/file");

    EXPECT_EQ(curl.Execute(), "body");
    EXPECT_EQ(Asked().line, "POST /x HTTP/1.1");
}

TEST_F(Upload, StaysWhenTheMethodIsSetAfterIt) {
    Sandbox::WriteFile("/tmp/file", "body");
    curl.UploadFile("/tmp/file");
    curl.SetMethodType(QxCCurlHandler::Post);

    EXPECT_EQ(curl.Execute(), "body");
}

TEST_F(Upload, ReplacesAPayload) {
    Sandbox::WriteFile("/tmp/file", "from the file");
    curl.SetPayload("payload");
    curl.UploadFile("/tmp/file");

    EXPECT_EQ(curl.Execute(), "from the file");
}

TEST_F(Upload, IsReplacedByAPayload) {
    Sandbox::WriteFile("/tmp/file", "from the file");
    curl.UploadFile("/tmp/file");
    curl.SetPayload("payload");

    EXPECT_EQ(curl.Execute(), "payload");
}

TEST_F(Upload, ASecondOneReplacesTheFirstAndClosesItsFile) {
    Sandbox::WriteFile("/tmp/first", "first");
    Sandbox::WriteFile("/tmp/second", "the second");
    curl.UploadFile("/tmp/first");
    curl.UploadFile("/tmp/second");

    EXPECT_THAT(Sandbox::OpenDescriptors(), Not(Contains(HasSubstr("/tmp/first"))));
    EXPECT_EQ(curl.Execute(), "the second");
}

TEST_F(Upload, OfAMissingFileIsLoggedAndTheRequestGoesWithoutABody) {
    curl.UploadFile("/tmp/missing");

    EXPECT_THAT(Recording::Logs(), ElementsAre(MissingLine));
    EXPECT_THAT(Recording::Messages(),
                ElementsAre("3 Quolex Container CURL Handler:Error opening file: /tmp/missing\n"));
    EXPECT_EQ(curl.Execute(), "");
    EXPECT_EQ(Asked().line, "POST /x HTTP/1.1");
    EXPECT_EQ(Asked().body, "");
    EXPECT_EQ(curl.GetHttpCode(), 200);
}

TEST_F(Upload, OfAMissingFileKeepsAnEarlierOne) {
    Sandbox::WriteFile("/tmp/file", "earlier");
    curl.UploadFile("/tmp/file");
    curl.UploadFile("/tmp/missing");

    EXPECT_EQ(curl.Execute(), "earlier");
    EXPECT_THAT(Recording::Logs(), ElementsAre(MissingLine));
}

TEST_F(Upload, OfAMissingFileKeepsAnEarlierPayload) {
    curl.SetPayload("payload");
    curl.UploadFile("/tmp/missing");

    EXPECT_EQ(curl.Execute(), "payload");
}

TEST_F(Upload, IsToldWhenVerbose) {
    Recording::TheScript().logLevel = "DEBUG_VERBOSE";
    Sandbox::WriteFile("/tmp/file", "12345");

    curl.UploadFile("/tmp/file");

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[DEBUG_VERBOSE] Quolex Container CURL Handler:Upload configured: "
                            "file=/tmp/file, size=5 bytes\n"));
}

TEST_F(Upload, HoldsTheFileForTheHandlersLife) {
    Sandbox::WriteFile("/tmp/file", "12345");
    {
        QxCCurlHandler handler;
        handler.UploadFile("/tmp/file");
        EXPECT_THAT(Sandbox::OpenDescriptors(), Contains(HasSubstr("/tmp/file")));
    }
    EXPECT_THAT(Sandbox::OpenDescriptors(), Not(Contains(HasSubstr("/tmp/file"))));
}

TEST_F(Upload, OfADirectoryCountsAsOneThatCannotBeOpened) {
    Sandbox::WriteFile("/tmp/file", "earlier");
    curl.UploadFile("/tmp/file");
    const auto before = Sandbox::OpenDescriptors();

    curl.UploadFile("/tmp");

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container CURL Handler:Error opening file: /tmp\n"));
    EXPECT_EQ(Sandbox::OpenDescriptors(), before);
    EXPECT_EQ(curl.Execute(), "earlier");
}

TEST_F(Upload, OfAFileWithoutASizeIsLoggedAndTheRequestGoesWithoutABody) {
    Sandbox::WriteFile("/tmp/file", "content");
    CurlOptions::Record();
    CurlOptions::FailFstatAfter(0);

    curl.UploadFile("/tmp/file");

    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container CURL Handler:Error getting file info: /tmp/file\n"));
    EXPECT_THAT(CurlOptions::Recorded(), IsEmpty());
    EXPECT_THAT(Sandbox::OpenDescriptors(), Contains(HasSubstr("/tmp/file"))) << "it stays open";
    EXPECT_EQ(curl.Execute(), "");
    EXPECT_EQ(Asked().Header("Content-Length"), "0");
}

TEST_F(Upload, OfAPipeCountsAsOneThatCannotBeOpenedAndWaitsForNobody) {
    Sandbox::WriteFile("/tmp/file", "earlier");
    curl.UploadFile("/tmp/file");
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    alarm(10);

    curl.UploadFile("/tmp/pipe");

    alarm(0);
    EXPECT_THAT(Recording::Logs(),
                ElementsAre("[ERROR] Quolex Container CURL Handler:Error opening file: /tmp/pipe\n"));
    EXPECT_EQ(curl.Execute(), "earlier");
}

TEST_F(Upload, OfAFileWithoutASizeLeavesStandardInputAloneWhenTheMethodIsSetAfterIt) {
    Sandbox::WriteFile("/tmp/file", "content");
    int input[2];
    ASSERT_EQ(pipe(input), 0);
    ASSERT_EQ(write(input[1], "secret", 6), 6);
    close(input[1]);
    ASSERT_EQ(dup2(input[0], STDIN_FILENO), STDIN_FILENO);
    QxCCurlHandler handler;
    handler.SetUnixSocket(SocketPath);
    handler.SetUrl("http://d/x");
    CurlOptions::FailFstatAfter(0);

    handler.UploadFile("/tmp/file");
    handler.SetMethodType(QxCCurlHandler::Post);

    EXPECT_EQ(handler.Execute(), "");
    EXPECT_EQ(Asked().Header("Content-Length"), "0");
    char kept[8];
    EXPECT_EQ(read(STDIN_FILENO, kept, sizeof(kept)), 6);
}

TEST_F(Upload, OfAFileWithoutASizeKeepsThePayloadAfterAnEarlierOne) {
    Sandbox::WriteFile("/tmp/first", "1234567");
    Sandbox::WriteFile("/tmp/second", "7654321");
    curl.UploadFile("/tmp/first");
    curl.SetPayload("payload");
    CurlOptions::FailFstatAfter(0);

    curl.UploadFile("/tmp/second");

    EXPECT_EQ(curl.Execute(), "payload");
}

TEST_F(Upload, OfAFileWithoutASizeNeverReadsFromTheOneBefore) {
    Sandbox::WriteFile("/tmp/first", "1234567");
    Sandbox::WriteFile("/tmp/second", "7654321");
    curl.UploadFile("/tmp/first");
    CurlOptions::FailFstatAfter(0);
    CurlOptions::Record();

    curl.UploadFile("/tmp/second");

    EXPECT_THAT(CurlOptions::Recorded(), ElementsAre("fclose", "READDATA=set", "POSTFIELDSIZE_LARGE=0"));
    EXPECT_EQ(curl.Execute(), "");
    EXPECT_EQ(Asked().Header("Content-Length"), "0");
}

}  // namespace
