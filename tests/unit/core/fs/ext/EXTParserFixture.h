#pragma once

#include "core/fs/ext/EXTParser.h"
#include "support/ExtImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace agent::core::fs {

using test::ExtImage;
using Geometry = ExtImage::Geometry;
using Blocks = std::set<std::uint64_t>;
using Lines = std::vector<test::RecordingLogger::Line>;

inline constexpr std::uint64_t superBlock = ExtImage::superBlock;
inline const std::string extLogicalError =
    "A logical error occurred while attempting to parse the EXT bitmap, err: -1";

class EXTParserTest : public testing::Test {
protected:
    void make(Geometry geometry) { image = std::make_unique<ExtImage>(geometry); }

    /// The parser's result for the image from `startBlock` on. Each call uses a new parser.
    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 65536) {
        EXTParser parser(record.logger, image->volume, 512);
        EXPECT_TRUE(parser.recognize());
        image->volume.requests.clear();
        buffer.assign(bytes, 0xa5);
        return parser.getBitmapChunk(startBlock, buffer.data(), buffer.size());
    }

    /// The blocks whose bits are set in the buffer. The first bit is that of `startBlock`.
    [[nodiscard]] Blocks used(std::uint64_t startBlock = 0) const {
        Blocks blocks;
        for (std::uint64_t bit = 0; bit < buffer.size() * 8; ++bit) {
            if ((buffer[bit / 8] >> (bit % 8) & 1) != 0) {
                blocks.insert(startBlock + bit);
            }
        }
        return blocks;
    }

    void expectRefused(const std::string& reason) {
        record.clear();
        EXPECT_EQ(parse(), -1);
        EXPECT_EQ(record.lines(),
                  (Lines{{info::level::error, reason}, {info::level::error, extLogicalError}}));
        EXPECT_TRUE(image->volume.requests.empty()) << "something was read";
    }

    void setSuperBlock(std::uint64_t offset, std::uint64_t value, unsigned width = 4) {
        image->volume.writeLittle(superBlock + offset, value, width);
    }

    test::RecordingLogger record;
    std::unique_ptr<ExtImage> image;
    std::vector<std::uint8_t> buffer;
};

} // namespace agent::core::fs
