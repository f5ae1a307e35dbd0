#pragma once

#include "core/transport/ZephaneFTPTransport.h"
#include "support/FakeZephane.h"
#include "support/RecordingLogger.h"
#include "unit/core/transport/TransportCalls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace agent::core {

using info::level::error;
using Answer = test::FakeZephane::Answer;

inline constexpr std::int64_t mebibyte = 1 << 20;
inline constexpr std::int64_t piece = 4 * mebibyte;
inline constexpr std::int64_t imageBytes = 10 * mebibyte;
inline constexpr std::uint64_t largestId = std::numeric_limits<std::uint64_t>::max();
inline constexpr std::int64_t farthest = std::numeric_limits<std::int64_t>::max();

inline const std::string address = "zephane://server:25568/host1/data/18446744073709551615";

/// The recorded construction of a client with these flags and of its parts.
inline Calls making(int flags) {
    return {"TLSTransport '' ''", "BasicSocket TLSTransport", "Decompressor", "Compressor",
            "ZephaneFTPClient server 25568 host1/data 18446744073709551615 " + std::to_string(flags) +
                " the secret reading: Decompressor writing: Compressor"};
}

inline Calls join(const std::vector<Calls>& parts) {
    Calls all;
    for (const Calls& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

inline Line refused(int attempt) {
    return {error, "Try: " + std::to_string(attempt) + " Couldn't connect to " + address +
                       " code: -13 message: no such image"};
}

class ZephaneFTPTransportTest : public testing::Test {
protected:
    ZephaneFTPTransportTest() {
        zephane.image.resize(imageBytes);
        for (std::size_t at = 0; at < zephane.image.size(); at += 4096) {
            zephane.image[at] = static_cast<unsigned char>(1 + at / 4096 % 251);
        }
    }

    ~ZephaneFTPTransportTest() override {
        transport.reset();
        EXPECT_EQ(zephane.clients, 0);
    }

    void make(std::uint64_t offset) {
        transport.emplace(log.logger, "server", "host1/data", largestId, offset, std::uint16_t{25568},
                          "the secret");
    }

    /// Connects, and forgets the recorded calls and lines.
    void connect(std::uint64_t offset = 0) {
        make(offset);
        ASSERT_TRUE(transport->connect(false));
        forget();
    }

    void forget() {
        log.clear();
        zephane.calls.clear();
    }

    void refuse(int times) {
        zephane.script("open", std::vector<Answer>(static_cast<std::size_t>(times),
                                                   Answer{.code = -EACCES, .text = "no such image"}));
    }

    [[nodiscard]] std::int64_t position() { return transport->seek(0, relative); }

    /// Reads into a buffer of exactly `length` bytes, and keeps them.
    std::int64_t read(std::size_t length) {
        received.assign(length, 0);
        received.shrink_to_fit();
        errno = 0;
        return transport->read(received.data(), length);
    }

    std::int64_t write(std::size_t length) {
        const Bytes data(length, 0xFE);
        errno = 0;
        return transport->write(data.data(), data.size());
    }

    [[nodiscard]] Bytes imageFrom(std::int64_t offset, std::int64_t length) const {
        return {zephane.image.begin() + offset, zephane.image.begin() + offset + length};
    }

    test::FakeZephane zephane;
    test::RecordingLogger log;
    std::optional<ZephaneFTPTransport> transport{std::in_place,        log.logger,  "server",
                                                 "host1/data",         largestId,   std::uint64_t{0},
                                                 std::uint16_t{25568}, "the secret"};
    Bytes received;
};

} // namespace agent::core
