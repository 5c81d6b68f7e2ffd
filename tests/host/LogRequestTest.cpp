#include "LogRequest.h"

#include <gtest/gtest.h>

namespace {

TEST(LogRequest, NamesAContainerAndMayHaveATail) {
    const auto request = LogRequest::Parse("/logs/web-1.a_B");
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->container, "web-1.a_B");
    EXPECT_EQ(request->Endpoint(),
              "/containers/web-1.a_B/logs?follow=true&stdout=true&stderr=true&timestamps=false&tail=100");
    EXPECT_EQ(LogRequest::Parse("/logs/x?tail=0")->tail, "0");
    EXPECT_EQ(LogRequest::Parse("/logs/x?tail=999999999")->tail, "999999999");
    EXPECT_EQ(LogRequest::Parse("/logs/x?tail=all")->tail, "all");
    EXPECT_TRUE(LogRequest::Parse("/logs/" + std::string(255, 'a')).has_value());
}

TEST(LogRequest, RefusesEverythingElse) {
    for (const char* target : {"",
                               "/",
                               "/logs",
                               "/logs/",
                               "/logs/a/b",
                               "/logs/..",
                               "/logs/.",
                               "/logs/-a",
                               "/logs/_a",
                               "/logs/a b",
                               "/logs/a%2fb",
                               "/logs/a&b",
                               "/logs/a#b",
                               "/logs/a\nb",
                               "/logs/\xc3\xa4",
                               "logs/a",
                               "/Logs/a",
                               "http://localhost/logs/a",
                               "/logs/a?",
                               "/logs/a?tail",
                               "/logs/a?tail=",
                               "/logs/a?tail=-1",
                               "/logs/a?tail=1x",
                               "/logs/a?tail=1000000000",
                               "/logs/a?tail=1&follow=false",
                               "/logs/a?follow=false",
                               "/logs/?tail=1",
                               "/logs/a?tail=ALL"}) {
        EXPECT_FALSE(LogRequest::Parse(target).has_value()) << target;
    }
    EXPECT_FALSE(LogRequest::Parse("/logs/" + std::string(256, 'a')).has_value());
    EXPECT_FALSE(LogRequest::Parse(std::string_view("/logs/a\0b", 9)).has_value());
}

TEST(LogRequest, HostsAreTheLoopbackNames) {
    for (const char* authority : {"localhost", "localhost:80", "LocalHost:8080", "127.0.0.1",
                                  "127.0.0.1:65535", "[::1]", "[::1]:1"}) {
        EXPECT_TRUE(IsLoopbackAuthority(authority)) << authority;
    }
    for (const char* authority :
         {"", "localhost.evil.example", "localhost:", "localhost:a", "localhost:123456", "evil.example",
          "evil.example:80", "127.0.0.1.evil.example", "127.0.0.2", "::1", "[::1", "user@localhost",
          "localhost ", " localhost", "localhost:80@evil.example", "0.0.0.0"}) {
        EXPECT_FALSE(IsLoopbackAuthority(authority)) << authority;
    }
}

TEST(LogRequest, OriginsAreThoseOfPagesOfThisMachine) {
    for (const char* origin :
         {"http://localhost", "https://localhost:8443", "http://127.0.0.1:3000", "http://[::1]:80"}) {
        EXPECT_TRUE(IsLoopbackOrigin(origin)) << origin;
    }
    for (const char* origin :
         {"", "null", "localhost", "http://evil.example", "http://localhost.evil.example",
          "http://localhost/", "file://", "ws://localhost", "HTTP://localhost:1x"}) {
        EXPECT_FALSE(IsLoopbackOrigin(origin)) << origin;
    }
}

}  // namespace
