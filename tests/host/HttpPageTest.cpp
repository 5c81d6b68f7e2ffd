#include "HttpTest.h"

#include <sys/stat.h>

using testing::HasSubstr;

namespace {

class HttpPages : public HttpTest {
protected:
    HttpPages() {
        Write("index.html", "index");
        Write("assets/app-1.js", "script");
        Write("deep/er/file.txt", "deep");
        Write("empty.css", "");
        Sandbox::WriteFile("/tmp/secret.html", "secret");
        Sandbox::WriteFile("/tmp/page-secret/index.html", "secret");
        server.options.page = "/tmp/page";
        server.Serve();
    }

    static void Write(const std::string& name, const std::string& text) {
        Sandbox::WriteFile("/tmp/page/" + name, text);
    }
};

TEST_F(HttpPages, AreServed) {
    EXPECT_EQ(Ask(Get("/")).body, "index");
    EXPECT_EQ(Ask(Get("/?query")).body, "index");
    EXPECT_EQ(Ask(Get("/index.html")).body, "index");
    EXPECT_EQ(Ask(Get("/assets/app-1.js")).body, "script");
    EXPECT_EQ(Ask(Get("/deep/er/file.txt")).body, "deep");
    EXPECT_EQ(Ask(Get("/%69ndex.html")).body, "index");
    const Answer empty = Ask(Get("/empty.css"));
    EXPECT_EQ(empty.status, 200);
    EXPECT_EQ(empty.Header("content-length"), "0");
}

TEST_F(HttpPages, AreServedWholeAndOneAfterTheOther) {
    std::string large;
    for (int at = 0; large.size() < 5000000; ++at) {
        large += std::to_string(at);
    }
    Write("large", large);
    HttpClient client(server.port);
    EXPECT_TRUE(client.Ask(Get("/large")).body == large);
    EXPECT_EQ(client.Ask(Get("/")).body, "index");
    const Answer head = client.Ask("HEAD /large HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_EQ(head.Header("content-length"), std::to_string(large.size()));
    EXPECT_EQ(client.Ask(Get("/")).body, "index");
}

TEST_F(HttpPages, HaveTheTypeOfTheirName) {
    const std::vector<std::pair<std::string, std::string>> types = {
        {"a.html", "text/html; charset=utf-8"},
        {"a.js", "text/javascript; charset=utf-8"},
        {"a.css", "text/css; charset=utf-8"},
        {"a.svg", "image/svg+xml"},
        {"a.png", "image/png"},
        {"a.ico", "image/x-icon"},
        {"a.woff2", "font/woff2"},
        {"a.json", "application/json"},
        {"a.webmanifest", "application/manifest+json"},
        {"a.html.bin", "application/octet-stream"},
        {"html", "application/octet-stream"},
    };
    for (const auto& [name, type] : types) {
        Write(name, "content");
        EXPECT_EQ(Ask(Get("/" + name)).Header("content-type"), type) << name;
    }
}

TEST_F(HttpPages, AreKeptByBrowsersOnlyWhereNamesChangeWithTheContent) {
    EXPECT_EQ(Ask(Get("/")).Header("cache-control"), "no-cache");
    EXPECT_EQ(Ask(Get("/deep/er/file.txt")).Header("cache-control"), "no-cache");
    EXPECT_EQ(Ask(Get("/assets/app-1.js")).Header("cache-control"), "public, max-age=31536000, immutable");
    EXPECT_EQ(Ask(Get("/assets/nothing.js")).Header("cache-control"), "no-store");
}

TEST_F(HttpPages, CarryTheProtectingHeaders) {
    const Answer page = Ask(Get("/"));
    EXPECT_EQ(
        page.Header("content-security-policy"),
        "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; font-src 'self'; "
        "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
    EXPECT_EQ(page.Header("x-content-type-options"), "nosniff");
    EXPECT_EQ(page.Header("referrer-policy"), "no-referrer");
}

TEST_F(HttpPages, LeadNowhereElse) {
    for (const char* target :
         {"/../secret.html", "/%2e%2e/secret.html", "/%2E./secret.html", "/deep/../../secret.html",
          "/..%2fsecret.html", "/%2e%2e%2fsecret.html", "/..%2Fpage-secret%2Findex.html", "//tmp/secret.html",
          "/%2ftmp%2fsecret.html", "/%2Ftmp/secret.html", "/deep%2fer%2ffile.txt", "/./index.html",
          "/index.html%00.js", "/tmp/secret.html", "/-secret/index.html", "/../page-secret/index.html",
          "/..\\secret.html"}) {
        const Answer answer = Ask(Get(target));
        EXPECT_THAT(answer.status, testing::AnyOf(400, 404)) << target;
        EXPECT_EQ(answer.Header("content-type"), "application/problem+json") << target;
    }
}

TEST_F(HttpPages, AreNoLinks) {
    std::filesystem::create_symlink("/tmp/secret.html", "/tmp/page/link.html");
    std::filesystem::create_symlink("index.html", "/tmp/page/inside.html");
    std::filesystem::create_directory_symlink("/tmp/page-secret", "/tmp/page/linked");
    for (const char* target : {"/link.html", "/inside.html", "/linked/index.html"}) {
        EXPECT_EQ(Ask(Get(target)).status, 404) << target;
    }
}

TEST_F(HttpPages, AreNothingButFiles) {
    ASSERT_EQ(mkfifo("/tmp/page/pipe", 0666), 0);
    for (const char* target : {"/deep", "/deep/", "/deep/er", "/pipe", "/nothing", "/index.html/more"}) {
        EXPECT_EQ(Ask(Get(target)).status, 404) << target;
    }
}

TEST_F(HttpPages, CannotBeChanged) {
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
        const Answer answer = Ask(std::string(method) + " /index.html HTTP/1.1\r\nHost: localhost\r\n\r\n");
        EXPECT_EQ(answer.status, 405) << method;
    }
    EXPECT_EQ(Ask(Get("/")).body, "index");
}

TEST_F(HttpPages, ThatShrinkMeanwhileBreakOff) {
    Write("large", std::string(50 << 20, 'x'));
    HttpClient client(server.port);
    client.Send(Get("/large"));
    EXPECT_TRUE(client.HasInput(20000));
    std::filesystem::resize_file("/tmp/page/large", 1);
    EXPECT_FALSE(client.Read().isComplete);
    EXPECT_TRUE(IsDeserted());
}

TEST_F(HttpTest, WithoutAPageSaysHowToServeOne) {
    server.Serve();
    const Answer answer = Ask(Get("/"));
    EXPECT_EQ(answer.status, 404);
    EXPECT_THAT(answer.body, HasSubstr("--page"));
}

}  // namespace
