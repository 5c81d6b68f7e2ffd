#include "QxNJson.h"
#include "Sandbox.h"

#include <gmock/gmock.h>

using QxNJson::json;

namespace {

std::string Nested(int depth) {
    return std::string(static_cast<size_t>(depth), '[') + std::string(static_cast<size_t>(depth), ']');
}

TEST(Json, KeepsTheOrderOfMembers) {
    EXPECT_EQ(json::parse(R"({"b": 1, "a": 2})").dump(), R"({"b":1,"a":2})");
}

TEST(Json, MalformedTextIsInvalidOrRaisesAsAsked) {
    const json invalid = json::parse("{");
    EXPECT_TRUE(invalid.is_invalid());
    EXPECT_FALSE(invalid.contains("a"));
    EXPECT_FALSE(json().is_invalid()) << "null is a value";
    EXPECT_THROW(json::parse("{", true), json::parse_error);
}

TEST(Json, ANulIsNoEnd) {
    using namespace std::string_literals;
    for (const std::string& text : {"{}\0"s, "{}\0{"s, "1\0"s, "\0"s, "[\0]"s, "\"a\0b\""s}) {
        EXPECT_TRUE(json::parse(text).is_invalid()) << testing::PrintToString(text);
        EXPECT_ANY_THROW(json::parse(text, true));
    }
    EXPECT_EQ(json::parse(R"("a\u0000b")").get<std::string>(), "a\0b"s) << "escaped it is a character";
}

TEST(Json, NestingIsBounded) {
    EXPECT_EQ(json::parse(Nested(json::MaxDepth)).dump(), Nested(json::MaxDepth));
    EXPECT_TRUE(json::parse(Nested(json::MaxDepth + 1)).is_invalid());
    EXPECT_TRUE(json::parse(Nested(1000000)).is_invalid());
    EXPECT_THROW(json::parse(Nested(json::MaxDepth + 1), true), json::parse_error);
}

TEST(Json, BracketsInTextsAreNoNesting) {
    const std::string text =
        "[\"\\\"\\\\" + std::string(2000, '[') + "\",\"" + std::string(2000, '{') + "\"]";
    EXPECT_EQ(json::parse(text).dump(), text);
}

TEST(Json, AStreamThatCannotBeReadIsInvalid) {
    std::ifstream directory("/");
    EXPECT_TRUE(json::parse(directory).is_invalid());
    Sandbox::WriteFile("/empty", "");
    std::ifstream empty("/empty");
    EXPECT_TRUE(json::parse(empty).is_invalid());
}

TEST(Json, ValuesNestInEachOtherAsTheyAre) {
    json inner = json::object();
    inner["x"] = "y";
    json outer = json::object();
    outer["list"] = json::array();
    outer["list"].push_back(inner);
    outer["inner"] = inner;
    EXPECT_EQ(outer.dump(), R"({"list":[{"x":"y"}],"inner":{"x":"y"}})");
}

TEST(Json, DumpReplacesBytesThatAreNotUtf8UnlessToldOtherwise) {
    json value = json::object();
    value["a"] = "x\xff";
    EXPECT_EQ(value.dump(), "{\"a\":\"x\xEF\xBF\xBD\"}");
    EXPECT_EQ(value.dump(-1, ' ', true, json::Utf8ErrorMode::Replace), R"({"a":"x\ufffd"})");
    EXPECT_EQ(value.dump(-1, ' ', false, json::Utf8ErrorMode::Ignore), R"({"a":"x"})");
    EXPECT_THROW(value.dump(-1, ' ', false, json::Utf8ErrorMode::Strict), json::type_error);
}

}  // namespace
