#include "QxNJson.h"
#include "Sandbox.h"
#include "http/Clock.h"
#include "http/Message.h"
#include "http/Router.h"

#include <gmock/gmock.h>
#include <filesystem>
#include <limits>

using QxNHttp::Problem;
using QxNHttp::Reply;
using QxNHttp::Request;
using QxNHttp::Right;
using QxNHttp::Router;
using QxNHttp::Status;
using QxNHttp::Task;
using QxNHttp::UploadedFile;
using QxNHttp::Verb;
using testing::HasSubstr;

namespace {

TEST(HttpTimes, AreToldAsLengthsForPeople) {
    using namespace std::chrono_literals;
    EXPECT_EQ(QxNHttp::DurationText(-5s), "0 seconds");
    EXPECT_EQ(QxNHttp::DurationText(1999ms), "1 second");
    EXPECT_EQ(QxNHttp::DurationText(119s), "119 seconds");
    EXPECT_EQ(QxNHttp::DurationText(120s), "2 minutes");
    EXPECT_EQ(QxNHttp::DurationText(119min), "119 minutes");
    EXPECT_EQ(QxNHttp::DurationText(2h), "2 hours");
    EXPECT_EQ(QxNHttp::DurationText(47h + 59min), "47 hours");
    EXPECT_EQ(QxNHttp::DurationText(48h), "2 days");
}

TEST(HttpParameters, HaveDefaults) {
    const Request request;
    EXPECT_EQ(request.Parameter("name"), "");
    EXPECT_EQ(request.Parameter("name", "default"), "default");
    EXPECT_TRUE(request.Flag("flag", true));
    EXPECT_FALSE(request.Flag("flag", false));
    EXPECT_EQ(request.Number("number", 7, 9), 7U);
}

TEST(HttpParameters, AreTaken) {
    Request request;
    ASSERT_TRUE(ParseTarget("/?name=text&yes=true&no=false&number=12&empty=", request));
    EXPECT_EQ(request.Parameter("name", "default"), "text");
    EXPECT_EQ(request.Parameter("empty", "default"), "");
    EXPECT_TRUE(request.Flag("yes", false));
    EXPECT_FALSE(request.Flag("no", true));
    EXPECT_EQ(request.Number("number", 7, 12), 12U);
}

TEST(HttpParameters, ThatAreWrongAreRefused) {
    for (const char* text : {"", "yes", "True", "1"}) {
        Request request;
        request.query["flag"] = text;
        EXPECT_THROW(request.Flag("flag", true), Problem) << text;
    }
    for (const char* text : {"", "-1", "+1", "1x", "x", " 1", "1.0", "0x1", "101", "18446744073709551616"}) {
        Request request;
        request.query["number"] = text;
        try {
            request.Number("number", 7, 100);
            ADD_FAILURE() << text;
        } catch (const Problem& problem) {
            EXPECT_EQ(problem.status, Status::bad_request);
            EXPECT_THAT(problem.what(), HasSubstr("'number' must be a number from 0 to 100"));
        }
    }
    Request request;
    request.query["number"] = "18446744073709551615";
    EXPECT_EQ(request.Number("number", 0, std::numeric_limits<std::uint64_t>::max()), 18446744073709551615U);
}

TEST(HttpProblems, AreToldInTextThatCanBeRead) {
    const Reply reply = Reply::Of(Problem(Status::bad_request, "not UTF-8: \xff"));
    EXPECT_EQ(reply.type, "application/problem+json");
    EXPECT_EQ(reply.status, Status::bad_request);
    EXPECT_EQ(QxNJson::json::parse(reply.body)["detail"], "not UTF-8: \xef\xbf\xbd");
}

TEST(FileNames, AreLettersDigitsAndLittleElse) {
    for (const std::string& name : {std::string("a"), std::string("0"), std::string("Name-1.2_3.tar.gz"),
                                    std::string("a.."), std::string(128, 'x')}) {
        EXPECT_TRUE(QxNHttp::IsFileName(name)) << name;
    }
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string(".hidden"), std::string("-option"),
          std::string("_a"), std::string("a/b"), std::string("a b"), std::string("a\0b", 3),
          std::string("\xc3\xa4"), std::string("a\n"), std::string("a:b"), std::string(129, 'x')}) {
        EXPECT_FALSE(QxNHttp::IsFileName(name)) << name;
    }
}

TEST(Times, AreTextInUtc) {
    using std::chrono::system_clock;
    const auto text = [](long long milliseconds) {
        return QxNHttp::TimeText(system_clock::time_point(std::chrono::milliseconds(milliseconds)));
    };
    setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(text(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(text(1795287845123), "2026-11-21T19:04:05.123Z");
    EXPECT_EQ(text(1795287845007), "2026-11-21T19:04:05.007Z");
    EXPECT_EQ(text(-1), "1969-12-31T23:59:59.999Z");
}

class Routes : public testing::Test {
protected:
    using Segments = std::vector<std::string>;

    void Add(Verb method, const std::string& pattern) { router.Add(method, pattern, Right::Look, nullptr); }
    void AddStream(const std::string& pattern) {
        router.AddStream(pattern, Right::Act,
                         [](Request&) -> Task<Router::Stream> { co_return Router::Stream(); });
    }

    Status WhyNot(Verb method, const Segments& segments, bool wantsWebSocket = false) {
        allow.clear();
        try {
            router.Find(method, segments, wantsWebSocket, allow);
        } catch (const Problem& problem) {
            return problem.status;
        }
        return Status::ok;
    }

    Router router;
    std::string allow;
};

TEST_F(Routes, AreFoundByTheirPattern) {
    Add(Verb::get, "/things/{thing}/parts");
    Add(Verb::get, "/");
    EXPECT_EQ(WhyNot(Verb::get, {"things", "any", "parts"}), Status::ok);
    EXPECT_EQ(WhyNot(Verb::get, {"things", "{thing}", "parts"}), Status::ok);
    EXPECT_EQ(WhyNot(Verb::get, {}), Status::ok);
    for (const Segments& segments :
         {Segments{"things"}, Segments{"things", "any"}, Segments{"things", "any", "parts", "more"},
          Segments{"things", "any", "Parts"}, Segments{"any", "any", "parts"}}) {
        EXPECT_EQ(WhyNot(Verb::get, segments), Status::not_found);
    }
}

TEST_F(Routes, ThatWereAddedFirstCount) {
    Add(Verb::get, "/things/all");
    Add(Verb::get, "/things/{thing}");
    Add(Verb::delete_, "/things/{thing}");
    EXPECT_EQ(router.Find(Verb::get, {"things", "all"}, false, allow).pattern.at(1), "all");
    EXPECT_EQ(router.Find(Verb::get, {"things", "one"}, false, allow).pattern.at(1), "{thing}");
    EXPECT_EQ(router.Find(Verb::delete_, {"things", "all"}, false, allow).pattern.at(1), "{thing}");
    EXPECT_EQ(WhyNot(Verb::put, {"things", "all"}), Status::method_not_allowed);
    EXPECT_EQ(allow, "GET, DELETE");
}

TEST_F(Routes, AreForWebSocketsOrNot) {
    Add(Verb::get, "/both");
    AddStream("/both");
    AddStream("/stream");
    EXPECT_EQ(router.Find(Verb::get, {"both"}, false, allow).stream, nullptr);
    EXPECT_NE(router.Find(Verb::get, {"both"}, true, allow).stream, nullptr);
    EXPECT_EQ(router.Find(Verb::get, {"both"}, true, allow).right, Right::Act);
    EXPECT_EQ(WhyNot(Verb::get, {"stream"}), Status::upgrade_required);
    EXPECT_EQ(WhyNot(Verb::post, {"stream"}), Status::upgrade_required);
    EXPECT_EQ(WhyNot(Verb::post, {"both"}), Status::method_not_allowed);
    EXPECT_EQ(allow, "GET");
    EXPECT_EQ(WhyNot(Verb::get, {"other"}, true), Status::not_found);
}

class UploadedFiles : public testing::Test {
protected:
    UploadedFiles() { Sandbox::WriteFile(fresh, "fresh"); }

    const std::string fresh = "/tmp/files/.fresh";
    const std::string final = "/tmp/files/final";
};

TEST_F(UploadedFiles, GoWhenNobodyWantsThem) {
    {
        UploadedFile file(fresh, 5);
        const UploadedFile moved = std::move(file);
        EXPECT_EQ(moved.Path(), fresh);
        EXPECT_EQ(moved.Size(), 5U);
        EXPECT_TRUE(std::filesystem::exists(fresh));
    }
    EXPECT_FALSE(std::filesystem::exists(fresh));
}

TEST_F(UploadedFiles, StayWhenTheyAreGivenUp) {
    { EXPECT_EQ(UploadedFile(fresh, 5).Release(), fresh); }
    EXPECT_EQ(Sandbox::ReadFile(fresh), "fresh");
}

TEST_F(UploadedFiles, ArePutInPlace) {
    {
        UploadedFile file(fresh, 5);
        EXPECT_FALSE(file.MoveTo(final));
    }
    EXPECT_EQ(Sandbox::ReadFile(final), "fresh");
    EXPECT_FALSE(std::filesystem::exists(fresh));

    Sandbox::WriteFile(fresh, "next");
    EXPECT_TRUE(UploadedFile(fresh, 4).MoveTo(final));
    EXPECT_EQ(Sandbox::ReadFile(final), "next");
}

TEST_F(UploadedFiles, ThatCannotBePutInPlaceGo) {
    {
        UploadedFile file(fresh, 5);
        EXPECT_THROW(file.MoveTo("/tmp/nowhere/final"), Problem);
    }
    EXPECT_FALSE(std::filesystem::exists(fresh));
}

}  // namespace
