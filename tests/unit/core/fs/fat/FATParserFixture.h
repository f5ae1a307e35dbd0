#pragma once

#include "core/fs/fat/FATParser.h"
#include "support/FatImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace agent::core::fs {

using test::FatImage;
using Geometry = FatImage::Geometry;
using Blocks = std::set<std::uint64_t>;
using Lines = std::vector<test::RecordingLogger::Line>;

inline const std::string fatLogicalError =
    "A logical error occurred while attempting to parse the FAT bitmap, err: ";

class FATParserTest : public testing::Test {
protected:
    void make(Geometry geometry) { image = std::make_unique<FatImage>(geometry); }

    /// The parser's result for the image from `startBlock` on. Each call uses a new parser.
    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 4096) {
        FATParser parser(record.logger, image->volume, 512);
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

    /// All blocks before `end`, and `others`.
    static Blocks before(std::uint64_t end, Blocks others) {
        for (std::uint64_t block = 0; block < end; ++block) {
            others.insert(block);
        }
        return others;
    }

    void expectRefused(const std::string& reason) {
        record.clear();
        EXPECT_EQ(parse(), -1);
        EXPECT_EQ(record.lines(),
                  (Lines{{info::level::error, reason}, {info::level::error, fatLogicalError + "-1"}}));
        EXPECT_TRUE(image->volume.requests.empty()) << "something was read";
    }

    /// Expects that a valid volume with one changed number in its boot sector is refused.
    void expectRefusedWith(std::uint64_t offset, std::uint64_t value, unsigned width,
                           const std::string& reason) {
        make({});
        EXPECT_GT(parse(), 0);
        image->volume.writeLittle(offset, value, width);
        expectRefused(reason);
    }

    test::RecordingLogger record;
    std::unique_ptr<FatImage> image;
    std::vector<std::uint8_t> buffer;
};

} // namespace agent::core::fs
