#pragma once

#include "IImage.h"
#include "core/fs/IVolumeDevice.h"
#include "info/log/Logger.h"
#include "os/AlignedBuffer.h"

namespace restore {

/// An image as the parsers of file systems need it: readable at any offset, in any length. Small reads are
/// served from a larger buffer, as the image may be far away.
/// Owns:    nothing; image and logger must outlive it.
/// Threads: one at a time.
/// Fails:   returns -1 with `errno` set; a failed read is logged.
class ImageDevice : public agent::core::IVolumeDevice {
public:
    ImageDevice(agent::info::Logger& logger, IImage& image);

    std::int64_t read(void* buffer, std::size_t length) override;
    std::int64_t seek(std::int64_t offset, int whence) override;
    /// There is no descriptor, because no file system of this machine can report the extents of an image's
    /// files.
    [[nodiscard]] std::int32_t getFd() const override { return -1; }
    bool open() override { return true; }
    [[nodiscard]] std::uint64_t getSize() const override { return image.size(); }

private:
    /// The bytes of the buffered window from `place` to its end; empty at the image's end.
    std::span<const std::byte> windowAt(std::uint64_t place);

    agent::info::Logger& logger;
    IImage& image;
    os::AlignedBuffer window;
    std::uint64_t windowBegin = 0;
    std::size_t windowBytes = 0; // 0 if nothing has been read yet
    std::uint64_t position = 0;
};

} // namespace restore
