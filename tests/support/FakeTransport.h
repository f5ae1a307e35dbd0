#pragma once

#include "core/transport/ITransport.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace agent::test {

/// A transport to a remote image in memory that refuses what a real target would refuse. Its public members
/// record what happened to it.
/// Owns:    a share of the remote image.
/// Threads: one at a time.
/// Fails:   like a real transport: -1 or false, with `errno`.
class FakeTransport : public core::ITransport {
public:
    using Image = std::vector<std::uint8_t>;

    /// The remote image; several transports can share it.
    struct RemoteImage {
        Image image;
        bool isBroken = false; ///< if set, every command fails
        int changes = 0;       ///< how many writes and punched holes really changed the image
    };

    explicit FakeTransport(std::size_t imageBytes = 0) : FakeTransport(Image(imageBytes)) {}
    explicit FakeTransport(Image image)
        : FakeTransport(std::make_shared<RemoteImage>(RemoteImage{.image = std::move(image)})) {}
    explicit FakeTransport(std::shared_ptr<RemoteImage> remoteImage)
        : remote(std::move(remoteImage)), image(remote->image) {}

    /// As in the protocol, the offset must be within the image or at its end.
    std::int64_t seek(std::int64_t offset, int whence) override {
        const std::int64_t from = whence == 1 ? position : 0;
        if (whence < 0 || whence > 1 || offset < -from || offset > size() - from) {
            errno = EINVAL;
            return -1;
        }
        position = from + offset;
        return position;
    }

    std::int64_t write(const void* data, std::uint64_t length) override {
        if (!isReady() || !isAligned(length)) {
            return -1;
        }
        const std::size_t count = available(std::min(length, longestWrite));
        if (count == 0 && length > 0) {
            errno = ENOSPC;
            return -1;
        }
        ++writes;
        const auto* const source = static_cast<const std::uint8_t*>(data);
        if (!diffMerge || !std::equal(source, source + count, image.begin() + position)) {
            std::copy_n(source, count, image.begin() + position);
            written.emplace_back(position, count);
            ++remote->changes;
        }
        return moveBy(count);
    }

    bool connect(bool withDiffMerge) override {
        ++connects;
        if (refusing) {
            return false;
        }
        connected = true;
        diffMerge = withDiffMerge;
        position = 0;
        return true;
    }

    std::int64_t read(void* data, std::uint64_t length) override {
        if (!isReady()) {
            return -1;
        }
        ++reads;
        const std::size_t count = available(length);
        std::copy_n(image.begin() + position, count, static_cast<std::uint8_t*>(data));
        return moveBy(count);
    }

    void disconnect() override {
        ++disconnects;
        connected = false;
    }

    bool punchHole(std::uint64_t length) override {
        const std::size_t count = available(length);
        if (!holePunching || !isReady() || !isAligned(length) || count != length) {
            return false;
        }
        std::fill_n(image.begin() + position, count, std::uint8_t{0});
        holes.emplace_back(position, count);
        ++remote->changes;
        moveBy(count);
        return true;
    }

    [[nodiscard]] bool supportsHolePunching() const override { return holePunching; }

    using Extent = std::pair<std::int64_t, std::size_t>; ///< Position and length, in bytes.

private:
    std::shared_ptr<RemoteImage> remote;

public:
    Image& image;                   ///< the bytes of the remote image
    std::uint64_t blockBytes = 512; ///< the target's block size; 1 if it takes any length, as a file does
    bool refusing = false;          ///< if set, connections are refused
    bool holePunching = false;
    std::uint64_t longestWrite = UINT64_MAX; ///< the most bytes that one call writes
    bool connected = false;
    bool diffMerge = false; ///< As the last connect asked for.
    std::int64_t position = 0;
    int connects = 0;
    int disconnects = 0;
    int reads = 0;
    int writes = 0;
    std::vector<Extent> written; ///< what really changed; in diff-merge mode equal data is not written
    std::vector<Extent> holes;

private:
    [[nodiscard]] std::int64_t size() const { return static_cast<std::int64_t>(image.size()); }

    [[nodiscard]] bool isReady() const {
        errno = connected ? EIO : ENOTCONN;
        return connected && !remote->isBroken;
    }

    [[nodiscard]] bool isAligned(std::uint64_t length) const {
        errno = EINVAL;
        return length % blockBytes == 0 && static_cast<std::uint64_t>(position) % blockBytes == 0;
    }

    [[nodiscard]] std::size_t available(std::uint64_t length) const {
        return static_cast<std::size_t>(
            std::min<std::uint64_t>(length, image.size() - static_cast<std::size_t>(position)));
    }

    std::int64_t moveBy(std::size_t count) {
        position += static_cast<std::int64_t>(count);
        return static_cast<std::int64_t>(count);
    }
};

} // namespace agent::test
