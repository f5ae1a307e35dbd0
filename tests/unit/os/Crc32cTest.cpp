#include "os/Crc32c.h"

#include <gtest/gtest.h>

#include <string_view>

namespace os {
namespace {

std::uint32_t sumOf(std::string_view text) {
    return crc32c(std::as_bytes(std::span(text)));
}

TEST(Crc32c, IsTheOneThatEverybodyMeans) {
    EXPECT_EQ(sumOf(""), 0U);
    EXPECT_EQ(sumOf("a"), 0xc1d04330U);
    EXPECT_EQ(sumOf("123456789"), 0xe3069283U);
}

} // namespace
} // namespace os
