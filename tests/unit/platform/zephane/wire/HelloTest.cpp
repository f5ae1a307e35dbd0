#include "zephane/wire/Hello.h"

#include "zephane/wire/Limits.h"
#include "zephane/wire/ProtocolError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <string>

namespace zephane::wire {
namespace {

constexpr std::size_t flagsAt = 10; // after length, name and version
constexpr std::size_t lastBitsOfFlags = flagsAt + 7;

template <std::size_t size>
std::array<std::uint8_t, size> countedFrom(std::uint8_t first) {
    std::array<std::uint8_t, size> bytes{};
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

ClientHello helloOf(const std::string& path) {
    ClientHello hello;
    hello.flags = compareFlag | writableFlag;
    hello.image = {path, 0x0102030405060708};
    hello.client = countedFrom<16>(0x10);
    hello.nonce = countedFrom<32>(0x40);
    return hello;
}

/// Encodes a message that `encode` would refuse to make.
Bytes forged(const ClientHello& hello) {
    ClientHello honest = hello;
    honest.image.path.assign(hello.image.path.size(), 'x');
    Bytes message = encode(honest);
    std::ranges::copy(hello.image.path, message.end() - static_cast<std::ptrdiff_t>(hello.image.path.size()));
    return message;
}

using Decode = std::function<void(std::span<const std::uint8_t>)>;

struct Message {
    Bytes bytes;
    Decode decode;
};

std::vector<Message> allMessages() {
    return {{encode(helloOf("host1/data")), decodeClientHello},
            {encode(ServerHello{countedFrom<32>(1)}), decodeServerHello},
            {encode(ClientProof{countedFrom<32>(2)}), decodeClientProof},
            {encode(Verdict{0, {}, writableFlag, countedFrom<32>(3)}), decodeVerdict},
            {encode(Verdict{-EACCES, "no", 0, {}}), decodeVerdict}};
}

TEST(HelloTest, OfAClientIsLaidOutAsThePageSays) {
    const Bytes message = encode(helloOf("a/b"));
    Bytes expected{0, 8 + 8 + 8 + 16 + 32 + 2 + 3, 'Z', 'E', 'P', 'H', 'A', 'N', 'E', 1};
    const auto append = [&](const auto& bytes) {
        expected.insert(expected.end(), bytes.begin(), bytes.end());
    };
    append(Bytes{0, 0, 0, 0, 0, 0, 0, 9, 1, 2, 3, 4, 5, 6, 7, 8});
    append(countedFrom<16>(0x10));
    append(countedFrom<32>(0x40));
    append(Bytes{0, 3, 'a', '/', 'b'});
    EXPECT_EQ(message, expected);
}

TEST(HelloTest, OfAClientIsRead) {
    for (const std::string& path :
         {std::string("x"), std::string("h\u00f6st/\U0001f4be"), std::string(1024, 'x')}) {
        ClientHello hello = helloOf(path);
        hello.flags = compareFlag | compressionFlag | writableFlag;
        hello.image.volumeId = std::numeric_limits<std::uint64_t>::max();
        const ClientHello read = decodeClientHello(encode(hello));
        EXPECT_EQ(read.flags, hello.flags);
        EXPECT_EQ(read.image, hello.image);
        EXPECT_EQ(read.client, hello.client);
        EXPECT_EQ(read.nonce, hello.nonce);
    }
}

TEST(HelloTest, OfAServerIsRead) {
    const ServerHello hello{countedFrom<32>(7)};
    EXPECT_EQ(encode(hello).size(), 2U + 8 + 32);
    EXPECT_EQ(decodeServerHello(encode(hello)).nonce, hello.nonce);
}

TEST(HelloTest, ProofsAreRead) {
    const ClientProof proof{countedFrom<32>(7)};
    EXPECT_EQ(encode(proof).size(), 2U + 32);
    EXPECT_EQ(decodeClientProof(encode(proof)).proof, proof.proof);
}

TEST(HelloTest, VerdictsAreRead) {
    const Verdict granted = decodeVerdict(encode(Verdict{0, "", 10, countedFrom<32>(7)}));
    EXPECT_EQ(granted.code, 0);
    EXPECT_EQ(granted.granted, 10U);
    EXPECT_EQ(granted.proof, countedFrom<32>(7));

    const Verdict refused = decodeVerdict(encode(Verdict{-EBUSY, "in \u00fcse", 10, countedFrom<32>(7)}));
    EXPECT_EQ(refused.code, -EBUSY);
    EXPECT_EQ(refused.text, "in \u00fcse");
    EXPECT_EQ(refused.granted, 0U) << "a refusal grants nothing";
    EXPECT_EQ(refused.proof, Proof{});
}

TEST(HelloTest, MessagesThatAreCutAreRefused) {
    for (const auto& [bytes, decode] : allMessages()) {
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            EXPECT_THROW(decode(std::span(bytes).first(length)), ProtocolError) << length;
            Bytes consistent(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
            if (length >= 2) {
                consistent.at(1) = static_cast<std::uint8_t>(length - 2);
                EXPECT_THROW(decode(consistent), ProtocolError) << length;
            }
        }
    }
}

TEST(HelloTest, MessagesWithMoreBehindThemAreRefused) {
    for (const auto& [bytes, decode] : allMessages()) {
        Bytes longer = bytes;
        longer.push_back(0);
        EXPECT_THROW(decode(longer), ProtocolError);
        ++longer.at(1);
        EXPECT_THROW(decode(longer), ProtocolError);
    }
}

TEST(HelloTest, OtherProtocolsAndVersionsAreRefused) {
    const std::vector<Message> messages = allMessages();
    for (std::size_t hello = 0; hello < 2; ++hello) {
        for (std::size_t bit = 16; bit < flagsAt * 8; ++bit) {
            Bytes other = messages.at(hello).bytes;
            other.at(bit / 8) ^= static_cast<std::uint8_t>(1U << (bit % 8));
            EXPECT_THROW(messages.at(hello).decode(other), ProtocolError) << bit;
        }
    }
}

TEST(HelloTest, UnknownFlagsAreRefused) {
    for (unsigned bit = 0; bit < 64; ++bit) {
        const std::uint64_t flag = std::uint64_t{1} << bit;
        ClientHello hello = helloOf("path");
        hello.flags = flag;
        Bytes message = encode(helloOf("path"));
        message.at(lastBitsOfFlags - bit / 8) ^= static_cast<std::uint8_t>(1U << (bit % 8));
        if (flag == compareFlag || flag == compressionFlag || flag == writableFlag) {
            EXPECT_EQ(decodeClientHello(encode(hello)).flags, flag);
            EXPECT_NO_THROW(decodeClientHello(message));
        } else {
            EXPECT_THROW(encode(hello), std::invalid_argument) << bit;
            EXPECT_THROW(decodeClientHello(message), ProtocolError) << bit;
        }
    }
}

TEST(HelloTest, PathsThatCannotBeAreRefused) {
    for (const std::string& path : {std::string("a\nb"), std::string("a\0b", 3), std::string("\x7f"),
                                    std::string("\xc2\x85"), std::string("\xff"), std::string("\xc0\xaf")}) {
        EXPECT_THROW(encode(helloOf(path)), std::invalid_argument) << testing::PrintToString(path);
        EXPECT_THROW(decodeClientHello(forged(helloOf(path))), ProtocolError) << testing::PrintToString(path);
    }
}

TEST(HelloTest, EmptyAndLongPathsAreRefused) {
    EXPECT_THROW(encode(helloOf("")), std::invalid_argument);
    EXPECT_THROW(encode(helloOf(std::string(1025, 'x'))), std::invalid_argument);

    Bytes empty = encode(helloOf("x"));
    empty.pop_back();
    --empty.at(1);
    --empty.back();
    EXPECT_THROW(decodeClientHello(empty), ProtocolError);

    Bytes longer = encode(helloOf(std::string(1024, 'x')));
    const std::size_t lengthAt = longer.size() - 1024 - 1;
    longer.push_back('x');
    ++longer.at(1);
    ++longer.at(lengthAt);
    EXPECT_THROW(decodeClientHello(longer), ProtocolError);
}

TEST(HelloTest, RefusalsThatWouldSpoilALogAreRefused) {
    EXPECT_THROW(encode(Verdict{-EACCES, "a\nb", 0, {}}), std::invalid_argument);
    Bytes message = encode(Verdict{-EACCES, "a b", 0, {}});
    message.at(message.size() - 2) = '\n';
    EXPECT_THROW(decodeVerdict(message), ProtocolError);
}

TEST(HelloTest, CodesThatAreNoErrorsAreRefused) {
    const auto verdictOf = [](std::uint8_t first, std::uint8_t second, std::uint8_t third,
                              std::uint8_t fourth) {
        return Bytes{0, 6, first, second, third, fourth, 0, 0};
    };
    EXPECT_EQ(decodeVerdict(verdictOf(0xff, 0xff, 0xff, 0xff)).code, -1);
    EXPECT_EQ(decodeVerdict(verdictOf(0xff, 0xff, 0xf0, 0x01)).code, -4095);
    EXPECT_THROW(decodeVerdict(verdictOf(0xff, 0xff, 0xf0, 0x00)), ProtocolError);
    EXPECT_THROW(decodeVerdict(verdictOf(0x80, 0, 0, 0)), ProtocolError);
    EXPECT_THROW(decodeVerdict(verdictOf(0, 0, 0, 1)), ProtocolError);
    EXPECT_THROW(encode(Verdict{1, "", 0, {}}), std::invalid_argument);
    EXPECT_THROW(encode(Verdict{-4096, "", 0, {}}), std::invalid_argument);
}

TEST(HelloTest, SizesAreBounded) {
    const auto sizeOf = [](std::uint8_t high, std::uint8_t low) {
        return sizeOfMessage(std::array<std::uint8_t, 2>{high, low});
    };
    EXPECT_EQ(sizeOf(0, 0), 2U);
    EXPECT_EQ(sizeOf(1, 2), 260U);
    EXPECT_EQ(sizeOf(0x0f, 0xfe), messageBytes);
    EXPECT_THROW(sizeOf(0x0f, 0xff), ProtocolError);
    EXPECT_THROW(sizeOf(0xff, 0xff), ProtocolError);
    const std::size_t longestText = messageBytes - 2 - 4 - 2;
    EXPECT_EQ(encode(Verdict{-EIO, std::string(longestText, 'x'), 0, {}}).size(), messageBytes);
    EXPECT_THROW(encode(Verdict{-EIO, std::string(longestText + 1, 'x'), 0, {}}), std::invalid_argument);
    EXPECT_THROW(encode(Verdict{-EIO, std::string(70000, 'x'), 0, {}}), std::invalid_argument);
}

} // namespace
} // namespace zephane::wire
