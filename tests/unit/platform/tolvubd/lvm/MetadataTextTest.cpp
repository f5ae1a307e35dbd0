#include "lvm/MetadataText.h"

#include "ExpectedError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace tolvubd::lvm {
namespace {

bool isRefused(const std::string& text) {
    return test::errorOf([&] { parseMetadata(text); }) == EBADMSG;
}

TEST(MetadataText, HasSectionsAndValues) {
    const std::string text = "# a comment { \"\n"
                             "vg-1.a+b {\n\tid = \"a-b\" # another\n"
                             "inner{deep{number=18446744073709551615}}\n"
                             "list = [ \"x\", 7 ,\"y\" ]\nempty=[]\n}\n"
                             "version = 1 contents=\"Text\"";
    const Section whole = parseMetadata(text);
    EXPECT_EQ(whole.number("version"), 1U);
    EXPECT_EQ(whole.string("contents"), "Text");
    const Section* const group = whole.find("vg-1.a+b");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->string("id"), "a-b");
    EXPECT_EQ(group->values.at("list"), (std::vector<Word>{{"x", true}, {"7", false}, {"y", true}}));
    EXPECT_TRUE(group->values.at("empty").empty());
    EXPECT_TRUE(group->has("list", "y"));
    EXPECT_FALSE(group->has("list", "7"));
    EXPECT_FALSE(group->has("nothing", "y"));
    EXPECT_EQ(group->find("inner")->find("deep")->number("number"), ~std::uint64_t{0});
    EXPECT_EQ(group->find("deep"), nullptr);
    EXPECT_TRUE(parseMetadata(" \n#").sections.empty());
}

TEST(MetadataText, TellsNumbersFromStrings) {
    const std::string text =
        "a = \"1\" b = 1x c = -1 d = [1, 2] e = 18446744073709551616 f = 0.5 g = word h = 0x1";
    const Section whole = parseMetadata(text);
    for (const auto& [name, words] : whole.values) {
        EXPECT_EQ(whole.number(name), std::nullopt) << name;
    }
    EXPECT_EQ(whole.string("a"), "1");
    EXPECT_EQ(whole.string("g"), std::nullopt);
    EXPECT_EQ(whole.string("d"), std::nullopt);
}

TEST(MetadataText, HasQuotesInStrings) {
    const std::string text = R"(a = "x\"y\\" b = "{}[]=,#
" c = 3)";
    const Section whole = parseMetadata(text);
    EXPECT_EQ(whole.string("a"), R"(x\"y\\)");
    EXPECT_EQ(whole.string("b"), "{}[]=,#\n");
    EXPECT_EQ(whole.number("c"), 3U);
}

TEST(MetadataText, IsWhole) {
    const std::string text = "a { b = [ \"c\", 1 ] d { e = \"\\\"\" } } f = 2";
    EXPECT_FALSE(isRefused(text));
    for (const char* const part :
         {"a", "a {", "a { b", "a { b =", "a { b = [", "a { b = [ \"c", "a { b = [ \"c\"", "a { b = [ \"c\",",
          "a { b = [ \"c\", 1", "a { b = [ \"c\", 1 ]", "a { b = [ \"c\", 1 ] d { e = \"\\\"", "f ="}) {
        EXPECT_TRUE(isRefused(part)) << part;
    }
}

TEST(MetadataText, IsStrict) {
    for (const char* const text :
         {"}",          "a }",       "= 1",     "a = = 1",   "a = }",       "a = [1 2]", "a = [,1]",
          "a = [1,]",   "a = [[1]]", "a = [1}", "\"a\" = 1", "a = 1 a = 2", "a {} a {}", "a = 1 a {}",
          "a {} a = 1", "a [",       "a , b",   "a = $",     "\x80 = 1",    "a 1"}) {
        EXPECT_TRUE(isRefused(text)) << text;
    }
    EXPECT_TRUE(isRefused(std::string("a = 1\0b = 2", 11)));
}

TEST(MetadataText, HasALimitedDepth) {
    const auto nested = [](std::size_t depth) {
        std::string text;
        for (std::size_t level = 0; level < depth; ++level) {
            text += "a{";
        }
        return text + std::string(depth, '}');
    };
    EXPECT_FALSE(isRefused(nested(deepestSection)));
    EXPECT_TRUE(isRefused(nested(deepestSection + 1)));
    EXPECT_TRUE(isRefused(nested(100000)));
}

TEST(MetadataText, HasALimitedNumberOfItems) {
    const auto list = [](std::size_t words) {
        std::string text = "a = [0";
        for (std::size_t word = 1; word < words; ++word) {
            text += ",0";
        }
        return text + "]";
    };
    EXPECT_FALSE(isRefused(list(mostItems - 1)));
    EXPECT_TRUE(isRefused(list(mostItems)));
    std::string sections;
    for (std::size_t number = 0; number <= mostItems; ++number) {
        sections += std::to_string(number) + "{}";
    }
    EXPECT_TRUE(isRefused(sections));
}

} // namespace
} // namespace tolvubd::lvm
