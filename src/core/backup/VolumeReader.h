#pragma once

#include "core/fs/IVolumeDevice.h"
#include "info/log/Logger.h"

#include <memory>
#include <string>

namespace agent::core::backup {

/// A volume's block device, or an image of one in a file, read past the page cache: a backup must not push
/// out of it what the server works with. A file system that refuses that is read through the cache.
/// Owns:    the descriptor, from `open` on.
/// Threads: one at a time; seeking and reading are two steps.
/// Fails:   the constructor throws PosixError; everything else by return value, after a line in the log.
class VolumeReader : public IVolumeDevice {
public:
    /// Opens the device once to learn its size, and leaves it closed.
    VolumeReader(info::Logger& logger, const std::string& path);
    VolumeReader(const VolumeReader&) = delete;
    VolumeReader& operator=(const VolumeReader&) = delete;
    ~VolumeReader() override;

    std::int64_t read(void* buffer, std::size_t length) override;
    std::int64_t seek(std::int64_t offset, int whence) override;
    [[nodiscard]] std::int32_t getFd() const override;
    bool open() override;
    [[nodiscard]] std::uint64_t getSize() const override;

private:
    class Impl;

    std::unique_ptr<Impl> impl;
};

} // namespace agent::core::backup
