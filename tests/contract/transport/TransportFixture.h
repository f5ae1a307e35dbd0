#pragma once

#include "TransportSubject.h"

#include <gtest/gtest.h>

#include <memory>

namespace agent::contract {

/// A subject whose image has different content in each block, and a connected transport.
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

    /// Whether `result` is what a read or write returns if it fails before it has any effect.
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

    /// A range of the original image.
    [[nodiscard]] Bytes originalAt(std::int64_t offset, std::int64_t length) const {
        return {original.begin() + offset, original.begin() + offset + length};
    }

    /// The original image with one range replaced.
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
