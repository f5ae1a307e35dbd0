#pragma once

#include "core/fs/xfs/XFSParser.h"
#include "support/RecordingLogger.h"
#include "support/XfsImage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace agent::core::fs {

using test::XfsImage;
using Geometry = XfsImage::Geometry;
using Blocks = std::set<std::uint64_t>;

inline const std::string xfsLogicalError =
    "A logical error occurred while attempting to parse XFS bitmap, err: -1";

class XFSParserTest : public testing::Test {
protected:
    void make(Geometry geometry) { image = std::make_unique<XfsImage>(geometry); }

    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 250) {
        XFSParser parser(record.logger, image->volume, image->geometry.sectorSize);
        EXPECT_TRUE(parser.recognize());
        record.clear();
        image->volume.requests.clear();
        buffer.assign(bytes, 0xa5);
        return parser.getBitmapChunk(startBlock, buffer.data(), buffer.size());
    }

    /// The blocks, among the buffer's first `blocks`, whose bits are clear. The first bit is that of
    /// `startBlock`.
    [[nodiscard]] Blocks free(std::uint64_t blocks, std::uint64_t startBlock = 0) const {
        Blocks found;
        for (std::uint64_t bit = 0; bit < blocks; ++bit) {
            if ((buffer[bit / 8] >> (bit % 8) & 1) == 0) {
                found.insert(startBlock + bit);
            }
        }
        return found;
    }

    static Blocks run(std::uint64_t first, std::uint64_t count) {
        Blocks blocks;
        for (std::uint64_t block = first; block < first + count; ++block) {
            blocks.insert(block);
        }
        return blocks;
    }

    void expectFailure(const std::string& reason) {
        EXPECT_EQ(parse(), -1);
        EXPECT_TRUE(record.has(info::level::error, reason)) << reason;
        EXPECT_TRUE(record.has(info::level::error, xfsLogicalError));
    }

    test::RecordingLogger record;
    std::unique_ptr<XfsImage> image;
    std::vector<std::uint8_t> buffer;
};

} // namespace agent::core::fs
