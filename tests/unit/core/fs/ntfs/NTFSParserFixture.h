#pragma once

#include "core/fs/ntfs/NTFSParser.h"
#include "support/NtfsImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::core::fs {

using test::NtfsImage;
using Geometry = NtfsImage::Geometry;
using Clusters = std::set<std::uint64_t>;

inline constexpr int debug = info::level::debug;
inline constexpr std::size_t clusterBits = 4096UL * 8;

class NTFSParserTest : public testing::Test {
protected:
    void make(Geometry geometry) { image = std::make_unique<NtfsImage>(geometry); }

    std::int64_t parse(std::uint64_t startBlock = 0, std::size_t bytes = 8192) {
        return parseOn(image->geometry.bytesPerSector, startBlock, bytes);
    }

    std::int64_t parseOn(std::uint32_t deviceSector, std::uint64_t startBlock = 0, std::size_t bytes = 8192) {
        NTFSParser parser(record.logger, image->volume, deviceSector);
        EXPECT_TRUE(parser.recognize());
        record.clear();
        image->volume.requests.clear();
        buffer.assign(bytes, 0xa5);
        return parser.getBitmapChunk(startBlock, buffer.data(), buffer.size());
    }

    /// The used clusters among the buffer's first `clusters`. The first bit is that of `startBlock`.
    [[nodiscard]] Clusters used(std::uint64_t clusters, std::uint64_t startBlock = 0) const {
        Clusters found;
        for (std::uint64_t bit = 0; bit < clusters; ++bit) {
            if ((buffer[bit / 8] >> (bit % 8) & 1) != 0) {
                found.insert(startBlock + bit);
            }
        }
        return found;
    }

    static Clusters run(std::uint64_t first, std::uint64_t count) {
        Clusters clusters;
        for (std::uint64_t cluster = first; cluster < first + count; ++cluster) {
            clusters.insert(cluster);
        }
        return clusters;
    }

    [[nodiscard]] std::vector<std::string> debugLines() const {
        std::vector<std::string> texts;
        for (const auto& line : record.lines()) {
            if (line.level == debug) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    [[nodiscard]] bool hasDebug(const std::string& line) const { return record.has(debug, line); }

    [[nodiscard]] bool saysFailure(std::int64_t number) const {
        return record.has(info::level::error,
                          "A logical error occurred while attempting to parse the NTFS bitmap, err: " +
                              std::to_string(number));
    }

    void expectRefusal(const std::string& reason) {
        EXPECT_EQ(parse(), -1);
        EXPECT_TRUE(record.has(info::level::error, reason)) << reason;
        EXPECT_TRUE(saysFailure(-1));
    }

    void expectFailure(std::int64_t number, const std::string& line) {
        EXPECT_EQ(parse(), number);
        EXPECT_TRUE(hasDebug(line)) << line;
        EXPECT_TRUE(saysFailure(number));
    }

    void expectTooSmall(const std::string& line) {
        expectFailure(-226, line);
        EXPECT_TRUE(hasDebug("Sanity check failed on total bytes from BootRecord: 10000 vs total bytes from "
                             "Bitmap: 0"));
    }

    void expectBroken(const std::string& text) {
        try {
            parse();
            ADD_FAILURE() << "nothing is thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), text);
        }
    }

    /// Gives the bitmap's record an attribute list whose data attribute is in record 20.
    void setListed(const std::vector<NtfsImage::ListEntry>& entries) {
        image->setRecord(NtfsImage::bitmapRecord, {NtfsImage::attributeListOf(entries)});
        image->setRecord(20, {NtfsImage::dataOf(image->bitmap)}, NtfsImage::bitmapRecord);
    }

    test::RecordingLogger record;
    std::unique_ptr<NtfsImage> image;
    std::vector<std::uint8_t> buffer;
};

} // namespace agent::core::fs
