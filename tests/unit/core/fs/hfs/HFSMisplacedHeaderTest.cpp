#include "core/fs/hfs/HFSMisplacedHeader.h"

#include "support/HfsImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace agent::core::fs {
namespace {

class HFSMisplacedHeaderTest : public testing::Test {
protected:
    HFSMisplacedHeaderTest() {
        image.copyHeader();
        image.set(0, 0, 8);
    }

    bool isThere(std::uint32_t sectorSize = 512) {
        return hasHeaderAtItsUsualPlace(record.logger, image.volume, sectorSize);
    }

    test::RecordingLogger record;
    test::HfsImage image{{}};
};

TEST_F(HFSMisplacedHeaderTest, IsFoundOnAnyDevice) {
    EXPECT_TRUE(isThere(0));
    EXPECT_TRUE(isThere(512));
    EXPECT_TRUE(isThere(4096));
    image.volume.writeBig(1024, 0x48580005, 4);
    EXPECT_TRUE(isThere());
}

TEST_F(HFSMisplacedHeaderTest, SignatureAloneIsNoHeader) {
    image.volume.writeBig(1024 + 2, 6, 2);
    EXPECT_FALSE(isThere());
    image.volume.writeBig(1024 + 2, 4, 2);
    image.volume.writeBig(1024 + 40, 1000, 4);
    EXPECT_FALSE(isThere());
}

TEST_F(HFSMisplacedHeaderTest, AnythingElseIsNoHeader) {
    image.volume.writeBig(1024, 0x482C, 2);
    EXPECT_FALSE(isThere());
}

TEST_F(HFSMisplacedHeaderTest, WhatCannotBeReadIsNoHeader) {
    image.volume.failReads(1030, 1031);
    EXPECT_FALSE(isThere());
    image.volume.failReads(0, 0);
    image.volume.size = 1535;
    EXPECT_FALSE(isThere());
    image.volume.size = 1536;
    EXPECT_TRUE(isThere());
}

} // namespace
} // namespace agent::core::fs
