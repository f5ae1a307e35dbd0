#pragma once

#include "core/fs/IVolumeDevice.h"
#include "info/log/Logger.h"

#include <memory>
#include <string>

namespace agent::core::backup {

/// Reads a volume's block device, or an image file, with O_DIRECT: a backup must not evict the server's
/// working set from the page cache. Where the file system refuses O_DIRECT, reads go through the cache.
/// Owns:    the file descriptor, from `open` on.
/// Threads: one at a time; a seek and a read are two separate calls.
/// Fails:   the constructor throws PosixError; everything else by return value, after a log line.
class VolumeReader : public IVolumeDevice {
public:
    /// Opens the device to measure its size, and closes it again.
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
