#include "ordak/RequestBody.h"

#include <gtest/gtest.h>

namespace agent::ordak {
namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20U;

class RequestBodyTest : public testing::Test {
protected:
    std::atomic<std::size_t> kept = 0;
    RequestBody body{kept};
};

TEST_F(RequestBodyTest, PiecesMakeAWhole) {
    EXPECT_TRUE(body.append("one", true));
    EXPECT_TRUE(body.append("", true));
    EXPECT_TRUE(body.append(std::string("\0two", 4), false));
    EXPECT_EQ(kept, 7U);
    EXPECT_EQ(body.take(), std::string("one\0two", 7));
    EXPECT_EQ(kept, 0U);
    EXPECT_EQ(body.take(), "");
}

TEST_F(RequestBodyTest, UnpairedDeviceHasLittleToSay) {
    EXPECT_TRUE(body.append(std::string(RequestBody::maxUnpairedBytes, 'x'), false));
    EXPECT_FALSE(body.isDropped());
    EXPECT_TRUE(body.append("x", false));
    EXPECT_TRUE(body.isDropped());
    EXPECT_EQ(kept, 0U);
    EXPECT_TRUE(body.append("the end", false));
    EXPECT_TRUE(body.append("the end", true)); // half a body is worthless, even if the peer is paired by now
    EXPECT_EQ(kept, 0U);
    EXPECT_EQ(body.take(), "");
}

/// Meanwhile the agent has been paired with another device.
TEST_F(RequestBodyTest, WhatAPairedDeviceHasSentGoesWithItsPairing) {
    EXPECT_TRUE(body.append(std::string(mebibyte, 'x'), true));
    EXPECT_EQ(kept, mebibyte);
    EXPECT_TRUE(body.append("x", false));
    EXPECT_TRUE(body.isDropped());
    EXPECT_EQ(kept, 0U);
}

TEST_F(RequestBodyTest, NoBodyIsEndless) {
    for (const bool isPaired : {false, true}) {
        RequestBody endless(kept);
        const std::string piece(mebibyte, 'x');
        for (std::size_t sent = 0; sent < RequestBody::maxBytes; sent += piece.size()) {
            ASSERT_TRUE(endless.append(piece, isPaired));
        }
        EXPECT_FALSE(endless.append("x", isPaired));
    }
}

TEST_F(RequestBodyTest, AllBodiesShareOneLimit) {
    {
        RequestBody other(kept);
        EXPECT_TRUE(other.append(std::string(RequestBody::maxBytes - 10, 'x'), true));
        EXPECT_FALSE(body.append("eleven bytes", true));
        EXPECT_TRUE(body.append("ten bytes.", true));
        EXPECT_EQ(kept, RequestBody::maxBytes);
    }
    EXPECT_EQ(kept, 10U);
    EXPECT_TRUE(body.append("eleven bytes", true));
}

} // namespace
} // namespace agent::ordak
