#pragma once

#include "core/transport/ITransport.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace agent::test {

/// A remote image in memory. Not connected, it refuses everything but a seek, as a lost connection would.
/// What happened to it is public; it belongs to one thread.
class FakeTransport : public core::ITransport {
public:
    using Image = std::vector<std::uint8_t>;

    explicit FakeTransport(std::size_t imageBytes = 0) : image(imageBytes) {}
    explicit FakeTransport(Image image) : image(std::move(image)) {}

    /// As on the wire: within the image or just behind it.
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
        const std::size_t count = available(std::min(length, longestWrite));
        if (!connected || (count == 0 && length > 0)) {
            errno = connected ? ENOSPC : EIO;
            return -1;
        }
        ++writes;
        const auto* const source = static_cast<const std::uint8_t*>(data);
        if (!diffMerge || !std::equal(source, source + count, image.begin() + position)) {
            std::copy_n(source, count, image.begin() + position);
            written.emplace_back(position, count);
        }
        position += static_cast<std::int64_t>(count);
        return static_cast<std::int64_t>(count);
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
        if (!connected) {
            errno = EIO;
            return -1;
        }
        ++reads;
        const std::size_t count = available(length);
        std::copy_n(image.begin() + position, count, static_cast<std::uint8_t*>(data));
        position += static_cast<std::int64_t>(count);
        return static_cast<std::int64_t>(count);
    }

    void disconnect() override {
        ++disconnects;
        connected = false;
    }

    bool punchHole(std::uint64_t length) override {
        const std::size_t count = available(length);
        if (!connected || !holePunching || count != length) {
            return false;
        }
        std::fill_n(image.begin() + position, count, std::uint8_t{0});
        holes.emplace_back(position, count);
        position += static_cast<std::int64_t>(count);
        return true;
    }

    [[nodiscard]] bool supportsHolePunching() const override { return holePunching; }

    using Extent = std::pair<std::int64_t, std::size_t>; ///< Position and length, in bytes.

    Image image;
    bool refusing = false; ///< Set to refuse connections.
    bool holePunching = false;
    std::uint64_t longestWrite = UINT64_MAX; ///< that one call takes
    bool connected = false;
    bool diffMerge = false; ///< As the last connect asked for.
    std::int64_t position = 0;
    int connects = 0;
    int disconnects = 0;
    int reads = 0;
    int writes = 0;
    std::vector<Extent> written; ///< What has really been changed; in diff-merge mode equal data is not.
    std::vector<Extent> holes;

private:
    [[nodiscard]] std::int64_t size() const { return static_cast<std::int64_t>(image.size()); }

    [[nodiscard]] std::size_t available(std::uint64_t length) const {
        return static_cast<std::size_t>(
            std::min<std::uint64_t>(length, image.size() - static_cast<std::size_t>(position)));
    }
};

/// Another transport of which one call fails: the `failingCall`th, counting every operation that can fail
/// from 1 on. Counts on, so that a test can make call 1, 2, 3… fail until nothing fails any more.
class FaultyTransport : public core::ITransport {
public:
    FaultyTransport(std::shared_ptr<core::ITransport> inner, int failingCall)
        : inner(std::move(inner)), failingCall(failingCall) {}

    std::int64_t seek(std::int64_t offset, int whence) override {
        return fails() ? -1 : inner->seek(offset, whence);
    }
    std::int64_t write(const void* data, std::uint64_t length) override {
        return fails() ? -1 : inner->write(data, length);
    }
    bool connect(bool diffMerge) override { return !fails() && inner->connect(diffMerge); }
    std::int64_t read(void* data, std::uint64_t length) override {
        return fails() ? -1 : inner->read(data, length);
    }
    void disconnect() override { inner->disconnect(); }
    bool punchHole(std::uint64_t length) override { return !fails() && inner->punchHole(length); }
    [[nodiscard]] bool supportsHolePunching() const override { return inner->supportsHolePunching(); }

    /// True once the call that was to fail has come.
    [[nodiscard]] bool hasFailed() const { return calls >= failingCall; }

private:
    bool fails() {
        ++calls;
        if (calls == failingCall) {
            errno = EIO;
            return true;
        }
        return false;
    }

    std::shared_ptr<core::ITransport> inner;
    int failingCall;
    int calls = 0;
};

} // namespace agent::test
