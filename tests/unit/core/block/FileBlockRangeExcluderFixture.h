#pragma once

#include "core/block/FileBlockRangeExcluder.h"
#include "support/FixedRanges.h"
#include "support/RecordingLogger.h"
#include "support/ReferenceRanges.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace agent::core::block {

using test::allOf;
using Ranges = std::vector<BlockRange>;

inline constexpr std::uint32_t blockSize = 4096;

class FileBlockRangeExcluderTest : public testing::Test {
protected:
    Ranges excluded(const std::string& path, std::uint32_t size = blockSize,
                    const ExtentQuery& query = queryExtents) {
        return allOf(FileBlockRangeExcluder(log.logger, size, path, query));
    }

    /// The text of the single warning.
    [[nodiscard]] std::string warning() const {
        std::string text;
        for (const test::RecordingLogger::Line& line : log.lines()) {
            EXPECT_THAT(line.level, testing::AnyOf(info::level::debug, info::level::warning)) << line.text;
            if (line.level == info::level::warning) {
                EXPECT_EQ(text, "");
                text = line.text;
            }
        }
        return text;
    }

    test::TestDirectory directory;
    test::RecordingLogger log;
};

inline std::string notExcluded(const std::string& path, const std::string& why) {
    return "Failed to get extents of excluded file \"" + path +
           "\", blocks will not be excluded. Error: " + why;
}

} // namespace agent::core::block
