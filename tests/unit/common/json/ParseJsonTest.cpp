#include "common/json/ParseJson.h"

#include "support/Messages.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <ctime>
#include <string>

namespace agent {
namespace {

using nlohmann::json;
using test::messageOf;

std::string refusalOf(const std::string& text) {
    return messageOf<json::exception>([&] { (void)parseJson(text); });
}

std::string nested(int levels, const std::string& open, const std::string& close) {
    std::string text;
    for (int level = 0; level < levels; ++level) {
        text += open;
    }
    text += "1";
    for (int level = 0; level < levels; ++level) {
        text += close;
    }
    return text;
}

TEST(ParseJson, ReadsWhatTheLibraryReads) {
    for (const std::string text :
         {R"({"a": [1, -2, 3.5, "\u00e4", null, true], "b": {}})", "[]", "7", R"("x")"}) {
        EXPECT_EQ(parseJson(text), json::parse(text));
    }
}

TEST(ParseJson, NoJsonIsTheLibrarysError) {
    for (const std::string text : {"", " ", "{", "[1,]", "{\"a\"}", "nul", "\"\xff\"", "[1] 2", "\x01"}) {
        EXPECT_EQ(refusalOf(text), messageOf<json::parse_error>([&] { (void)json::parse(text).size(); }))
            << text;
    }
    EXPECT_EQ(refusalOf("1e999"), messageOf<json::out_of_range>([] { (void)json::parse("1e999").size(); }));
}

TEST(ParseJson, BoundsTheDepth) {
    EXPECT_EQ(parseJson(nested(128, "[", "]")), json::parse(nested(128, "[", "]")));
    EXPECT_EQ(parseJson(nested(128, "{\"a\":", "}")), json::parse(nested(128, "{\"a\":", "}")));
    for (const std::string& deep : {nested(129, "[", "]"), nested(10'000, "{\"a\":", "}"),
                                    nested(64, "[{\"a\":", "}]") + "]", std::string(10'000'000, '[')}) {
        EXPECT_NE(refusalOf(deep), "nothing was thrown");
    }
    EXPECT_EQ(messageOf<json::parse_error>([] { (void)parseJson(std::string(10'000'000, '[')); }),
              "[json.exception.parse_error.101] parse error: nested deeper than 128 levels");
}

/// A body of half a megabyte must not keep a CPU busy for seconds.
TEST(ParseJson, TakesTimeInProportionToTheText) {
    std::string many = "[{}";
    for (int i = 1; i < 200'000; ++i) {
        many += ",{}";
    }
    const std::clock_t start = std::clock();
    EXPECT_EQ(parseJson(many + "]").size(), 200'000U);
    EXPECT_LT((std::clock() - start) / CLOCKS_PER_SEC, 10); // a quadratic parser would take minutes
}

TEST(ParseJson, BoundsTheNumberOfValues) {
    std::string many = "[";
    for (std::size_t i = 0; i < maxJsonValues - 2; ++i) {
        many += "1,";
    }
    EXPECT_EQ(parseJson(many + "1]").size(), maxJsonValues - 1); // the array itself counts, too
    EXPECT_EQ(messageOf<json::parse_error>([&] { (void)parseJson(many + "1,1]"); }),
              "[json.exception.parse_error.101] parse error: more than 1000000 values");
    EXPECT_EQ(messageOf<json::parse_error>([&] {
                  std::string empty = "[";
                  for (std::size_t i = 0; i < maxJsonValues; ++i) {
                      empty += "[],";
                  }
                  (void)parseJson(empty + "[]]");
              }),
              "[json.exception.parse_error.101] parse error: more than 1000000 values");
}

/// The JSON library puts everything that it has read of a broken value into its message, which is logged and
/// sent to the client.
TEST(ParseJson, MessagesStayShort) {
    const std::string text(1'000'000, 'x');
    for (const std::string& broken : {"\"" + text, "{\"a\": \"" + text,
                                      "[" + std::string(1'000'000, '9') + "]", "\"" + text + "\x01\""}) {
        EXPECT_LT(refusalOf(broken).size(), 2000U);
    }
    const std::string message = refusalOf("\"" + text);
    EXPECT_TRUE(
        message.starts_with("[json.exception.parse_error.101] parse error at byte 1000002: syntax error "
                            "while parsing value - invalid string: missing closing quote; last read: "
                            "'\"xxx"))
        << message;
    EXPECT_TRUE(message.ends_with(" bytes)")) << message;
}

TEST(ParseJson, OneLongTextIsNoHarm) {
    const std::string text = "\"" + std::string(16UL * 1024 * 1024, 'x') + "\"";
    EXPECT_EQ(parseJson(text).get_ref<const std::string&>().size(), text.size() - 2);
}

} // namespace
} // namespace agent
