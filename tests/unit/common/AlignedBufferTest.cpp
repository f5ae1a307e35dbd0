#include "common/AlignedBuffer.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

namespace agent {
namespace {

constexpr std::size_t unobtainable = std::numeric_limits<std::size_t>::max();

TEST(AlignedBuffer, FailureNamesThePlaceOfTheCaller) {
    const int line = __LINE__ + 2;
    try {
        createAlignedBuffer(unobtainable, 4096);
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(
            std::string(error.what()),
            "Failed to create aligned memory of size: 18446744073709551615, alignment: 4096 from line: " +
                std::to_string(line) + " in file: AlignedBufferTest.cpp, error: std::bad_alloc");
    }
}

TEST(AlignedBuffer, CreatedBufferIsTheSame) {
    const AlignedBuffer buffer = createAlignedBuffer(8192, 4096);
    EXPECT_EQ(buffer.size(), 8192U);
    EXPECT_EQ(buffer.alignment(), 4096U);
}

} // namespace
} // namespace agent
