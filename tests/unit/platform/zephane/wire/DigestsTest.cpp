#include "zephane/wire/Digests.h"

#include "zephane/wire/ProtocolError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace zephane::wire {
namespace {

constexpr std::uint64_t lastByte = std::numeric_limits<std::uint64_t>::max();

// python3 -c 'from hashlib import sha256; print(sha256(b"Z" * 65536).hexdigest(), sha256(b"Z").hexdigest())'
constexpr auto digestOfUnit = "944044fe482bc4e91085c15c5a923a1b9e02eac98d3bce04997d6dbecd2a5b8d";
constexpr auto digestOfByte = "bbeebd879e1dff6918546dc0c179fdde505f2a21591c9a9c96e36b054ec5af83";

std::vector<std::string> digestsOfLetters(std::size_t bytes) {
    std::vector<std::string> result;
    for (const Digest& digest : digestsOf(Bytes(bytes, 'Z'))) {
        std::ostringstream text;
        for (const unsigned byte : digest) {
            text << std::hex << std::setw(2) << std::setfill('0') << byte;
        }
        result.push_back(text.str());
    }
    return result;
}

DigestAnswer answerOf(std::size_t bytes) {
    return {0, digestsOf(Bytes(bytes, 'Z'))};
}

TEST(DigestsTest, AreThoseOfEachUnit) {
    using Texts = std::vector<std::string>;
    EXPECT_EQ(digestsOfLetters(0), Texts());
    EXPECT_EQ(digestsOfLetters(1), Texts{digestOfByte});
    EXPECT_EQ(digestsOfLetters(digestUnit), Texts{digestOfUnit});
    EXPECT_EQ(digestsOfLetters(digestUnit + 1), (Texts{digestOfUnit, digestOfByte}));
    EXPECT_EQ(digestsOfLetters(digestRange), Texts(64, digestOfUnit));
}

TEST(DigestsTest, AreAsManyAsIsSaid) {
    for (const std::size_t bytes :
         {std::size_t{0}, std::size_t{1}, digestUnit - 1, digestUnit, digestUnit + 1}) {
        EXPECT_EQ(digestsIn(bytes), digestsOfLetters(bytes).size()) << bytes;
    }
}

TEST(DigestsTest, RequestsAreRead) {
    const DigestRequest request{0x0102030405060708, 0x00010203};
    const Bytes payload = encode(request);
    EXPECT_EQ(payload, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0, 1, 2, 3}));
    EXPECT_EQ(payload.size(), digestRequestBytes);
    EXPECT_EQ(decodeDigestRequest(payload).offset, request.offset);
    EXPECT_EQ(decodeDigestRequest(payload).length, request.length);
}

TEST(DigestsTest, RequestsOfWhatCannotBeAreRefused) {
    EXPECT_NO_THROW(decodeDigestRequest(encode(DigestRequest{lastByte - digestRange, digestRange})));
    EXPECT_THROW(encode(DigestRequest{0, 0}), std::invalid_argument);
    EXPECT_THROW(encode(DigestRequest{0, digestRange + 1}), std::invalid_argument);
    EXPECT_THROW(encode(DigestRequest{lastByte, 1}), std::invalid_argument);

    EXPECT_THROW(decodeDigestRequest(Bytes(12)), ProtocolError); // zero bytes
    EXPECT_THROW(decodeDigestRequest(Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0, 1}), ProtocolError);
    Bytes atTheEnd(12, 0xff);
    std::ranges::copy(Bytes{0, 0, 0, 1}, atTheEnd.begin() + 8);
    EXPECT_THROW(decodeDigestRequest(atTheEnd), ProtocolError);
}

TEST(DigestsTest, RequestsOfOtherLengthsAreRefused) {
    Bytes payload = encode(DigestRequest{4096, 4096});
    for (std::size_t length = 0; length < payload.size(); ++length) {
        EXPECT_THROW(decodeDigestRequest(std::span(payload).first(length)), ProtocolError) << length;
    }
    payload.push_back(0);
    EXPECT_THROW(decodeDigestRequest(payload), ProtocolError);
}

TEST(DigestsTest, AnswersAreRead) {
    for (const std::size_t bytes : {std::size_t{1}, digestUnit, digestUnit + 1, digestRange}) {
        const DigestAnswer answer = answerOf(bytes);
        const Bytes payload = encode(answer);
        EXPECT_EQ(payload.size(), 4 + 32 * answer.digests.size());
        EXPECT_LE(payload.size(), digestAnswerBytes);
        EXPECT_EQ(decodeDigestAnswer(payload).code, 0);
        EXPECT_EQ(decodeDigestAnswer(payload).digests, answer.digests);
    }
    const Bytes failed = encode(DigestAnswer{-EIO, {}});
    EXPECT_EQ(failed, (Bytes{0xff, 0xff, 0xff, 0xfb}));
    EXPECT_EQ(decodeDigestAnswer(failed).code, -EIO);
    EXPECT_TRUE(decodeDigestAnswer(failed).digests.empty());
}

TEST(DigestsTest, AnswersOfWhatCannotBeAreRefused) {
    EXPECT_THROW(encode(DigestAnswer{}), std::invalid_argument);
    EXPECT_THROW(encode(DigestAnswer{-EIO, digestsOf(Bytes(1))}), std::invalid_argument);
    EXPECT_THROW(encode(DigestAnswer{EIO, {}}), std::invalid_argument);
    EXPECT_THROW(encode(answerOf(digestRange + 1)), std::invalid_argument);

    EXPECT_THROW(decodeDigestAnswer(Bytes(4)), ProtocolError);             // without a digest
    EXPECT_THROW(decodeDigestAnswer(Bytes(4 + 65 * 32)), ProtocolError);   // one digest too many
    EXPECT_THROW(decodeDigestAnswer(Bytes{0, 0, 0, 5}), ProtocolError);    // neither 0 nor negative
    EXPECT_THROW(decodeDigestAnswer(Bytes{0x80, 0, 0, 0}), ProtocolError); // not a valid errno
    EXPECT_THROW(decodeDigestAnswer(Bytes(4 + 32, 0xff)), ProtocolError);  // digests together with a failure
}

TEST(DigestsTest, AnswersThatAreCutAreRefused) {
    const Bytes payload = encode(answerOf(digestUnit + 1));
    for (std::size_t length = 0; length < payload.size(); ++length) {
        if (length == 4 + 32) {
            continue; // a valid answer with one digest; a client that asked for two notices
        }
        EXPECT_THROW(decodeDigestAnswer(std::span(payload).first(length)), ProtocolError) << length;
    }
}

} // namespace
} // namespace zephane::wire
