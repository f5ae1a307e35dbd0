#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace restore {

/// An image of a volume. There is no way to write to it.
/// Owns:    the connection, or the file descriptor.
/// Threads: one at a time.
/// Fails:   throws std::runtime_error, after its retries have failed.
class IImage {
public:
    IImage() = default;
    IImage(const IImage&) = delete;
    IImage& operator=(const IImage&) = delete;
    IImage(IImage&&) = delete;
    IImage& operator=(IImage&&) = delete;
    virtual ~IImage() = default;

    /// In bytes; a multiple of 512.
    [[nodiscard]] virtual std::uint64_t size() const = 0;
    /// Fills all of `into` with the bytes from `offset` on; throws if they extend beyond the image. Offset,
    /// length and the buffer's address are multiples of 4096 bytes, except for the length at the image's end.
    virtual void read(std::span<std::byte> into, std::uint64_t offset) = 0;
    /// The name that people are shown.
    [[nodiscard]] virtual std::string name() const = 0;
};

} // namespace restore
