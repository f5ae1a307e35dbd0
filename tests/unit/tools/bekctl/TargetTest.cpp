#include "Target.h"

#include <gtest/gtest.h>

namespace bekctl {
namespace {

void expectTarget(const std::string& text, const std::string& host, unsigned short port) {
    const std::optional<Target> target = parseTarget(text);
    ASSERT_TRUE(target) << text;
    EXPECT_EQ(target->host, host) << text;
    EXPECT_EQ(target->port, port) << text;
}

TEST(ParseTarget, TakesHostAndPort) {
    expectTarget("store.example", "store.example", 3260);
    expectTarget("10.0.0.1:25568", "10.0.0.1", 25568);
    expectTarget("[fe80::1]", "fe80::1", 3260);
    expectTarget("[::1]:65535", "::1", 65535);
}

TEST(ParseTarget, RefusesAllElse) {
    for (const char* const text : {"", ":", ":3260", "a:", "a:b", "a:0", "a:65536", "a:1:2", "a:-1", "a:1 ",
                                   "[", "[]", "[::1", "[::1]1", "::1"}) {
        EXPECT_FALSE(parseTarget(text)) << text;
    }
}

} // namespace
} // namespace bekctl
