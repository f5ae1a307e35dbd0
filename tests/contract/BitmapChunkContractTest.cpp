#include "Fetch.h"
#include "ImageParsers.h"
#include "RealImage.h"
#include "core/block/UnchangedBlockBitmapChunkProvider.h"
#include "core/fs/IBlockBitmapChunkProvider.h"
#include "info/log/Logger.h"
#include "support/FixedBitmap.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

/// Tests for every provider of a bitmap in chunks: the parsers on real images, the driver's bitmap of
/// changes, and the fakes.
namespace agent::contract {
namespace {

using Provider = std::unique_ptr<core::fs::IBlockBitmapChunkProvider>;

/// A provider, and the map that it must provide.
struct Subject {
    ElementMap map;
    std::function<Provider()> makeProvider; ///< ready for use
    bool mustStartAtFirstBlock = false;     ///< a read from another start may be refused
};

struct NamedSubject {
    std::string name;
    std::function<Subject()> make;
};

ElementMap someMap(std::size_t elementBits) {
    std::mt19937 random(2);
    ElementMap map(3001, elementBits);
    for (std::uint64_t element = 0; element < map.size; ++element) {
        if (random() % 3 == 0) {
            map.setBit(element * elementBits + random() % elementBits);
        }
    }
    return map;
}

Subject fixedBitmap(bool msbFirst) {
    const ElementMap map = someMap(1);
    std::vector<bool> bits(map.size);
    for (std::uint64_t bit = 0; bit < map.size; ++bit) {
        bits[bit] = map.bit(bit);
    }
    return {map, [bits, msbFirst] { return std::make_unique<test::FixedBitmap>(bits, msbFirst); }};
}

/// The driver's bitmap of changes: words that start in the middle of a file.
Subject mapOfChanges() {
    constexpr std::uint64_t offset = 100;
    const ElementMap map = someMap(64);
    const auto directory = std::make_shared<test::TestDirectory>();
    const std::string path = *directory / "map";
    test::writeFile(path, std::string(offset, 'x') + std::string(map.bytes.begin(), map.bytes.end()) + "end");
    const core::block::IncrementalBitmapInfo place{path, offset, map.bytes.size(), map.size, 0};
    return {map, [directory, place] {
                return std::make_unique<core::block::UnchangedBlockBitmapChunkProvider>(silentLogger(),
                                                                                        place);
            }};
}

Subject mapOfImage(const std::string& name) {
    RealImage& image = imageOf(name);
    return {image.used,
            [&image] {
                auto parser = parserOf(image, image.volume);
                EXPECT_TRUE(parser->recognize());
                return parser;
            },
            image.mustStartAtFirstBlock};
}

std::vector<NamedSubject> allSubjects() {
    std::vector<NamedSubject> subjects{{"fixed_bitmap", [] { return fixedBitmap(false); }},
                                       {"fixed_bitmap_msb_first", [] { return fixedBitmap(true); }},
                                       {"map_of_changes", [] { return mapOfChanges(); }}};
    for (const std::string& name : imagesWith(RealImage::Verdict::readable)) {
        subjects.push_back({testNameOf(name), [name] { return mapOfImage(name); }});
    }
    return subjects;
}

class BitmapChunkContract : public testing::TestWithParam<NamedSubject> {
protected:
    [[nodiscard]] Fetch fetch(std::uint64_t startBlock, std::size_t bytes) const {
        return {*provider, subject.map, startBlock, bytes};
    }

    /// Fetches with a buffer for all that is left.
    [[nodiscard]] Fetch fetchRest(std::uint64_t startBlock) const {
        return fetch(startBlock, subject.map.roomFor(blocks - startBlock));
    }

    /// Whether the provider provides the rest of the map from there, or may and does refuse.
    [[nodiscard]] testing::AssertionResult goesOnFrom(std::uint64_t startBlock) const {
        const Fetch rest = fetchRest(startBlock);
        return subject.mustStartAtFirstBlock && rest.count < 0 ? rest.isValid() : rest.isTheRest();
    }

    /// Reads the map in chunks, as far as the provider accepts a buffer of this size.
    void expectPieces(std::uint64_t startBlock, std::size_t bytes) const {
        constexpr int mostPieces = 50;
        for (int piece = 0; piece < mostPieces; ++piece) {
            const Fetch fetched = fetch(startBlock, bytes);
            ASSERT_TRUE(fetched.isValid());
            if (fetched.count <= 0) {
                return;
            }
            startBlock += static_cast<std::uint64_t>(fetched.count);
        }
    }

    Subject subject = GetParam().make();
    Provider provider = subject.makeProvider();
    std::uint64_t blocks = subject.map.size;
};

TEST_P(BitmapChunkContract, BufferThatIsLargeEnoughHoldsTheWholeMap) {
    EXPECT_TRUE(fetchRest(0).isTheRest());
    EXPECT_TRUE(fetch(0, subject.map.bytes.size() + 1001).isTheRest());
}

TEST_P(BitmapChunkContract, PiecesOfAnySizeAreOfTheMap) {
    const std::size_t whole = subject.map.bytes.size();
    for (const std::size_t bytes : {std::size_t{1}, std::size_t{7}, std::size_t{8}, std::size_t{64},
                                    std::size_t{1001}, whole / 2, whole / 3 + 1, whole - 1}) {
        expectPieces(0, bytes);
        expectPieces(blocks - std::min<std::uint64_t>(blocks, 20 * bytes * 8 / subject.map.elementBits),
                     bytes);
    }
}

TEST_P(BitmapChunkContract, MapGoesOnFromWhereverAByteBegins) {
    for (std::uint64_t part = 1; part < 17; ++part) {
        EXPECT_TRUE(goesOnFrom(blocks * part / 17 / 8 * 8));
    }
    EXPECT_TRUE(goesOnFrom((blocks - 1) / 8 * 8));
}

TEST_P(BitmapChunkContract, WithinAByteItGoesOnOrFails) {
    for (const std::uint64_t start :
         {std::uint64_t{1}, std::uint64_t{7}, std::uint64_t{12}, blocks / 16 * 8 + 3, blocks - 1}) {
        EXPECT_TRUE(fetchRest(start).isValid());
    }
}

TEST_P(BitmapChunkContract, EndHasNothing) {
    EXPECT_EQ(fetch(blocks, 64).count, 0);
    for (const std::uint64_t start : {blocks + 1, blocks + 8, blocks + 4096, std::uint64_t{1} << 40U,
                                      std::uint64_t{1} << 63U, UINT64_MAX}) {
        EXPECT_TRUE(fetch(start, 64).isValid());
    }
    EXPECT_LE(fetch(0, 0).count, 0);
}

TEST_P(BitmapChunkContract, AskingChangesNothing) {
    const bool msbFirst = provider->isBitmapMsbFirst();
    const std::uint32_t blockSize = provider->getBlockSize();
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(goesOnFrom(blocks / 16 * 8));
        EXPECT_LE(fetch(blocks + 8, 64).count, 0);
        EXPECT_TRUE(fetchRest(0).isTheRest());
        EXPECT_EQ(provider->isBitmapMsbFirst(), msbFirst);
        EXPECT_EQ(provider->getBlockSize(), blockSize);
    }
}

INSTANTIATE_TEST_SUITE_P(All, BitmapChunkContract, testing::ValuesIn(allSubjects()),
                         [](const auto& subject) { return subject.param.name; });

} // namespace
} // namespace agent::contract
