#pragma once

#include "TransportSubject.h"

#include <gtest/gtest.h>

#include <memory>

namespace agent::contract {

/// A subject whose image is filled with bytes of which each block has its own, and a connected transport.
template <typename Subject>
class TransportFixture : public testing::TestWithParam<SubjectRow<Subject>> {
protected:
    using Bytes = TransportSubject::Bytes;

    static constexpr auto block = static_cast<std::int64_t>(TransportSubject::blockBytes);
    static constexpr auto size = static_cast<std::int64_t>(TransportSubject::imageBytes);
    static constexpr int absolute = 0;
    static constexpr int relative = 1;

    TransportFixture() {
        subject->setImage(original);
        transport = subject->make();
    }

    void connect(bool diffMerge = false) { ASSERT_TRUE(transport->connect(diffMerge)); }

    [[nodiscard]] std::int64_t position() { return transport->seek(0, relative); }

    std::int64_t read(std::size_t length) {
        received.assign(length, 0);
        return transport->read(received.data(), length);
    }

    std::int64_t write(const Bytes& bytes) { return transport->write(bytes.data(), bytes.size()); }

    /// Whether this is what a read or write returns that has failed before it has done anything.
    [[nodiscard]] bool isFailure(std::int64_t result) const {
        return result == -1 || (result == 0 && subject->mayFailShort());
    }

    static Bytes patternOf(std::size_t length, std::uint8_t seed) {
        Bytes bytes(length);
        for (std::size_t i = 0; i < length; ++i) {
            bytes[i] = static_cast<std::uint8_t>(seed + i % 251 + i / TransportSubject::blockBytes);
        }
        return bytes;
    }

    /// A piece of the image as it was.
    [[nodiscard]] Bytes originalAt(std::int64_t offset, std::int64_t length) const {
        return {original.begin() + offset, original.begin() + offset + length};
    }

    /// The image as it was but for a piece.
    [[nodiscard]] Bytes originalWith(std::int64_t offset, const Bytes& piece) const {
        Bytes bytes = original;
        std::copy(piece.begin(), piece.end(), bytes.begin() + offset);
        return bytes;
    }

    const Bytes original = patternOf(TransportSubject::imageBytes, 1);
    std::unique_ptr<Subject> subject = this->GetParam().make();
    std::shared_ptr<core::ITransport> transport;
    Bytes received;
};

} // namespace agent::contract
