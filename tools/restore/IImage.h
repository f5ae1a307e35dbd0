#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace restore {

/// An image of a volume, which is only read. Nothing that has an image can write to it.
/// Owns:    the connection, or the descriptor.
/// Threads: one at a time.
/// Fails:   by std::runtime_error, after what can be tried again has been tried.
class IImage {
public:
    IImage() = default;
    IImage(const IImage&) = delete;
    IImage& operator=(const IImage&) = delete;
    IImage(IImage&&) = delete;
    IImage& operator=(IImage&&) = delete;
    virtual ~IImage() = default;

    /// Bytes; a multiple of 512.
    [[nodiscard]] virtual std::uint64_t size() const = 0;
    /// Fills all of `into` from `offset` on; what reaches behind the image is a failure. Offset, length and
    /// the buffer's address are multiples of 4096 bytes, but for the length at the image's end.
    virtual void read(std::span<std::byte> into, std::uint64_t offset) = 0;
    /// How people know it.
    [[nodiscard]] virtual std::string name() const = 0;
};

} // namespace restore
