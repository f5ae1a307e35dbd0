#include "Fetch.h"
#include "ImageParsers.h"
#include "RealImage.h"
#include "core/fs/FileSystemKinds.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "support/FaultyVolume.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// Tests that every parser must pass on each of the real images of its file system.
namespace agent::contract {
namespace {

using core::fs::FileSystemKind;
using core::fs::IFileSystemParser;
using Verdict = RealImage::Verdict;

std::string nameOfTest(const testing::TestParamInfo<std::string>& info) {
    return testNameOf(info.param);
}

class ImageTest : public testing::TestWithParam<std::string> {
protected:
    ImageTest() { image.volume.requests.clear(); }
    ImageTest(const ImageTest&) = delete;
    ImageTest& operator=(const ImageTest&) = delete;
    ~ImageTest() override { image.volume.size = size; }

    /// Buffer bytes that are enough for any map of the volume.
    [[nodiscard]] std::size_t enough() const { return size / 512 / 8 + 1; }

    RealImage& image = imageOf(GetParam());
    const std::uint64_t size = image.volume.size;
};

class EveryImage : public ImageTest {};

TEST_P(EveryImage, IsRecognisedByItsOwnKindAlone) {
    for (const FileSystemKind& kind : core::fs::fileSystemKinds()) {
        const auto parser = kind.makeParser(silentLogger(), image.volume, 512);
        EXPECT_EQ(parser->recognize(), image.kind == kind.name) << kind.name;
    }
}

TEST_P(EveryImage, GetsTheParserOfItsKindOrNone) {
    test::RecordingLogger record;
    const auto parser =
        core::fs::UsedBlockBitmapChunkProviderFactory(record.logger, 512, &image.volume).create();
    EXPECT_EQ(parser == nullptr, image.verdict == Verdict::unknown);
    for (const FileSystemKind& kind : core::fs::fileSystemKinds()) {
        EXPECT_EQ(record.has(info::level::debug, kind.announcement), image.kind == kind.name);
    }
}

INSTANTIATE_TEST_SUITE_P(All, EveryImage, testing::ValuesIn(RealImage::names()), nameOfTest);

class RefusedImage : public ImageTest {};

TEST_P(RefusedImage, HasNoMap) {
    const auto parser = parserOf(image, image.volume);
    ASSERT_TRUE(parser->recognize());
    for (const std::uint64_t start : {0U, 8U, 1000U}) {
        EXPECT_LE(Fetch(*parser, image.used, start, enough()).count, 0) << start;
    }
}

INSTANTIATE_TEST_SUITE_P(All, RefusedImage, testing::ValuesIn(imagesWith(Verdict::refused)), nameOfTest);

class ReadableImage : public ImageTest {
protected:
    [[nodiscard]] Fetch wholeMap(IFileSystemParser& parser) const {
        return {parser, image.used, 0, image.used.bytes.size()};
    }

    /// Whether a parser, called once more, fails or provides the image's map.
    [[nodiscard]] testing::AssertionResult isMapValid(IFileSystemParser& parser) const {
        return parser.recognize() ? wholeMap(parser).isValid() : testing::AssertionSuccess();
    }

    /// The ends of all reads, as offsets on the device.
    std::vector<std::uint64_t> endsOfReads() {
        EXPECT_TRUE(isMapValid(*parserOf(image, image.volume)));
        std::vector<std::uint64_t> ends;
        for (const auto& request : image.volume.requests) {
            ends.push_back(request.offset + request.length);
        }
        return ends;
    }
};

TEST_P(ReadableImage, TellsTheSizeOfItsBlocks) {
    const auto parser = parserOf(image, image.volume);
    ASSERT_TRUE(parser->recognize());
    EXPECT_EQ(parser->getBlockSize(), image.blockSize);
}

TEST_P(ReadableImage, IsReadAsTheSectorsOfTheDeviceDemand) {
    for (const std::uint32_t sectorSize : {0U, 512U, 4096U}) {
        const auto parser = parserOf(image, image.volume, sectorSize);
        image.volume.requests.clear();
        ASSERT_TRUE(parser->recognize());
        const Fetch fetched = wholeMap(*parser);
        if (image.sectorSize == 0 || sectorSize == 0 || sectorSize == image.sectorSize) {
            EXPECT_TRUE(fetched.isTheRest()) << sectorSize;
        } else {
            EXPECT_LT(fetched.count, 0) << sectorSize;
        }
        const std::uint32_t unit = sectorSize == 0 ? 4096 : sectorSize;
        for (const auto& request : image.volume.requests) {
            EXPECT_EQ(request.offset % unit, 0U);
            EXPECT_EQ(request.length % unit, 0U);
        }
    }
}

TEST_P(ReadableImage, AnyCallMayFail) {
    bool failed = true;
    for (int call = 1; failed; ++call) {
        test::FaultyVolume volume(image.volume, call);
        const auto parser = parserOf(image, volume);
        const bool isReady = parser->recognize();
        ASSERT_TRUE(!isReady || wholeMap(*parser).isValid()) << "with call " << call << " failing";
        failed = volume.hasFailed();
        ASSERT_TRUE(isReady || parser->recognize());
        ASSERT_TRUE(wholeMap(*parser).isValid()) << "after call " << call << " has failed";
    }
}

TEST_P(ReadableImage, DeviceMayEndAnywhere) {
    for (const std::uint64_t end : endsOfReads()) {
        for (const std::uint64_t shorter : {1U, 37U, 511U, 512U, 4095U, 4096U}) {
            image.volume.size = end - std::min(end, shorter);
            ASSERT_TRUE(isMapValid(*parserOf(image, image.volume)))
                << "with " << image.volume.size << " bytes";
        }
    }
}

TEST_P(ReadableImage, DeviceNeedsNoMoreThanWhatIsRead) {
    image.volume.size = std::ranges::max(endsOfReads());
    const auto parser = parserOf(image, image.volume);
    ASSERT_TRUE(parser->recognize());
    EXPECT_TRUE(wholeMap(*parser).isTheRest());
}

TEST_P(ReadableImage, DeviceMayBecomeShortOnceItIsRecognised) {
    for (const std::uint64_t end : endsOfReads()) {
        image.volume.size = size;
        const auto parser = parserOf(image, image.volume);
        ASSERT_TRUE(parser->recognize());
        image.volume.size = end - 1;
        ASSERT_TRUE(wholeMap(*parser).isValid()) << "with " << end - 1 << " bytes";
        image.volume.size = size;
        ASSERT_TRUE(wholeMap(*parser).isValid()) << "after an end at " << end - 1;
    }
}

INSTANTIATE_TEST_SUITE_P(All, ReadableImage, testing::ValuesIn(imagesWith(Verdict::readable)), nameOfTest);

TEST(FileSystemKinds, HaveImagesToBeReadAndToBeRefused) {
    for (const FileSystemKind& kind : core::fs::fileSystemKinds()) {
        for (const Verdict verdict : {Verdict::readable, Verdict::refused}) {
            const std::vector<std::string> names = imagesWith(verdict);
            EXPECT_TRUE(std::ranges::any_of(names, [&](const std::string& name) {
                return imageOf(name).kind == kind.name;
            })) << kind.name;
        }
    }
}

} // namespace
} // namespace agent::contract
