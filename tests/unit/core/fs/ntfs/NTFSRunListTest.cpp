#include "core/fs/ntfs/NTFSRunList.h"

#include "core/fs/ntfs/NTFSError.h"
#include "support/NtfsImage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::core::fs {
namespace {

using test::NtfsImage;
using Content = NtfsImage::Content;
using Runs = std::vector<NTFSRun>;

class NTFSRunListTest : public testing::Test {
protected:
    const NTFSRunList& decode(const Content& list) {
        attribute = NtfsImage::withRunList(list);
        decoded = runsOf(NTFSAttribute(attribute));
        return decoded;
    }

    void expectRuns(const Content& list, const Runs& runs) {
        EXPECT_EQ(decode(list).runs, runs);
        EXPECT_EQ(decoded.whyUnusable, nullptr);
    }

    void expectObjection(const Content& list, const Runs& runs, const std::string& reason) {
        EXPECT_EQ(decode(list).runs, runs);
        ASSERT_NE(decoded.whyUnusable, nullptr);
        EXPECT_EQ(decoded.whyUnusable, reason);
    }

    void expectError(const Content& list, const std::string& text) {
        try {
            decode(list);
            ADD_FAILURE() << "nothing is thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), text);
        }
    }

    Content attribute;
    NTFSRunList decoded;
};

TEST_F(NTFSRunListTest, EmptyOnesHaveNoRuns) {
    expectRuns({}, {});
    expectRuns({0}, {});
    expectRuns({0, 0x11, 1, 1, 0}, {});
}

TEST_F(NTFSRunListTest, PlacesAreRelativeToTheRunBefore) {
    expectRuns({0x11, 5, 100, 0x11, 3, 0xF6, 0x21, 2, 0, 1, 0}, {{100, 5}, {90, 3}, {346, 2}});
}

TEST_F(NTFSRunListTest, NumbersHaveAnyWidthUpToFifteenBytes) {
    for (unsigned width = 1; width <= 15; ++width) {
        Content list{static_cast<std::uint8_t>(width | width << 4U)};
        for (const std::uint8_t lowest : {std::uint8_t{7}, std::uint8_t{9}}) {
            list.push_back(lowest);
            list.resize(list.size() + width - 1);
        }
        list.push_back(0);
        expectRuns(list, {{9, 7}});
    }
}

TEST_F(NTFSRunListTest, NumbersHaveASign) {
    for (unsigned width = 1; width <= 15; ++width) {
        Content list{0x11, 1, 100, static_cast<std::uint8_t>(1 | width << 4U), 1, 0xFB};
        list.resize(list.size() + width - 1, 0xFF);
        list.push_back(0);
        expectRuns(list, {{100, 1}, {95, 1}});
    }
    expectRuns({0x12, 0x80, 0, 100, 0}, {{100, 128}});
}

TEST_F(NTFSRunListTest, LastByteOfANumberCountsInFull) {
    expectRuns({0x81, 1, 1, 2, 3, 4, 5, 6, 7, 8, 0}, {{0x0807060504030201, 1}});
    expectRuns({0x18, 1, 2, 3, 4, 5, 6, 7, 0x7F, 9, 0}, {{9, 0x7F07060504030201}});
}

TEST_F(NTFSRunListTest, NumbersOfMoreThan64BitsEndTheList) {
    const std::string reason = "NTFS: A number in a run list is too large.";
    expectObjection({0x11, 1, 1, 0x91, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0x11, 1, 1, 0}, {{1, 1}}, reason);
    expectObjection({0x91, 1, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0}, {}, reason);
    expectObjection({0x91, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0}, {}, reason);
    expectObjection({0x1F, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 5, 0}, {}, reason);
    expectObjection({0x81, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x11, 1, 1, 0},
                    {{INT64_MAX, 1}}, reason);
    expectObjection({0x81, 1, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x11, 1, 0xFF, 0}, {{INT64_MIN, 1}}, reason);
}

TEST_F(NTFSRunListTest, ElementWithoutALengthIsPassedOver) {
    const std::string reason = "NTFS: A run of clusters has no length.";
    expectObjection({0x10, 50, 0x11, 2, 100, 0}, {{100, 2}}, reason);
    expectObjection({0x11, 2, 100, 0xF0, 1, 2}, {{100, 2}}, reason);
}

TEST_F(NTFSRunListTest, LengthMustBeMoreThanNothing) {
    const std::string reason = "NTFS: A run of clusters has no length.";
    expectObjection({0x11, 0, 100, 0x11, 1, 1, 0}, {{100, 0}, {101, 1}}, reason);
    expectObjection({0x11, 0x80, 100, 0}, {{100, -128}}, reason);
}

TEST_F(NTFSRunListTest, RunWithoutAPlaceIsAHole) {
    expectRuns({0x01, 3, 0x11, 1, 100, 0}, {{0, 3, true}, {100, 1}});
    expectRuns({0x11, 1, 100, 0x01, 3, 0x11, 2, 50, 0}, {{100, 1}, {100, 3, true}, {150, 2}});
}

TEST_F(NTFSRunListTest, NumbersThatAreCutShort) {
    expectError({0x14, 1, 0}, "Invalid runlist");
    expectError({0x12}, "Invalid runlist");
    expectError({0x11, 1, 100, 0x12}, "Invalid runlist");
    expectError({0x31, 1, 1}, "Corrupt runlist");
    expectError({0x11}, "Corrupt runlist");
    expectError({0xFF, 1}, "Invalid runlist");
}

// A number may end exactly at the end of the attribute. One that goes on would include bytes of the next
// attribute.
TEST_F(NTFSRunListTest, NumberThatEndsBehindTheAttributeIsRefused) {
    const std::string reason = "NTFS: A run list goes on behind its end.";
    expectObjection({0x11, 1}, {}, reason);
    expectObjection({0x11, 5, 100, 0x21, 1, 1}, {{100, 5}}, reason);
    expectObjection({0x03, 1, 0}, {}, reason);
}

TEST_F(NTFSRunListTest, ListMayEndWithTheAttribute) {
    expectRuns({0x11, 5, 100}, {{100, 5}});
    expectRuns({0x11, 5, 100, 0x11, 1, 1}, {{100, 5}, {101, 1}});
}

TEST_F(NTFSRunListTest, ListMustBeginWithinTheAttribute) {
    attribute = NtfsImage::withRunList({0x11, 5, 100, 0, 0, 0, 0, 0});
    attribute[32] = 72;
    EXPECT_TRUE(runsOf(NTFSAttribute(attribute)).runs.empty());
    for (const std::uint8_t high : {std::uint8_t{0}, std::uint8_t{0xFF}}) {
        attribute[32] = 73;
        attribute[33] = high;
        EXPECT_THROW(runsOf(NTFSAttribute(attribute)), std::runtime_error);
    }
}

TEST_F(NTFSRunListTest, OnlyDataThatIsNotResidentHasOne) {
    attribute = NtfsImage::withRunList({0x11, 5, 100, 0});
    attribute[0] = 0xA0;
    EXPECT_THROW(
        {
            try {
                runsOf(NTFSAttribute(attribute));
            } catch (const std::runtime_error& error) {
                EXPECT_STREQ(error.what(), "Attribute type is not DATA.");
                throw;
            }
        },
        std::runtime_error);
    EXPECT_EQ(decodeRunList(NTFSAttribute(attribute)).runs, (Runs{{100, 5}}));
    attribute[0] = 0x80;
    attribute[8] = 0;
    EXPECT_THROW(runsOf(NTFSAttribute(attribute)), std::runtime_error);
}

TEST_F(NTFSRunListTest, HeaderMustBeThere) {
    attribute = NtfsImage::withRunList({});
    EXPECT_NO_THROW(runsOf(NTFSAttribute(attribute)));
    attribute.resize(63);
    EXPECT_THROW(runsOf(NTFSAttribute(attribute)), NTFSError);
}

} // namespace
} // namespace agent::core::fs
