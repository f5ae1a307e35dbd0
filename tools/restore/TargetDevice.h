#pragma once

#include "Marker.h"
#include "RestorePlan.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace restore {

/// The block device or the file that an image is written to. Uses direct I/O where possible, so that what is
/// read back comes from the disk.
/// Owns:    the file descriptor. A block device is opened with O_EXCL, so that it can't be mounted meanwhile.
/// Threads: one may write while another reads.
/// Fails:   throws std::runtime_error, which says what to do if something can be done. Throws PosixError with
///          ENOSPC if there is no space left for a file.
class TargetDevice {
public:
    /// Opens the device or file, read-only unless `mayWrite`. Refuses what is mounted, otherwise in use, or
    /// neither a block device nor a file.
    TargetDevice(std::string path, bool mayWrite);

    [[nodiscard]] const std::string& path() const { return name; }
    /// The size in bytes. A file can grow, so its size is the largest one possible.
    [[nodiscard]] std::uint64_t size() const { return bytes; }
    [[nodiscard]] bool isFile() const { return file; }
    /// A description of what is on it: a file system, a table of partitions, a part of something; empty if
    /// nothing is recognised.
    [[nodiscard]] std::string content() const;
    /// The marker that an interrupted restore has left.
    [[nodiscard]] std::optional<Marker> marker() const;

    void read(std::span<std::byte> into, std::uint64_t offset) const;
    void write(std::span<const std::byte> from, std::uint64_t offset);
    /// Makes the range read as zeros, without taking space or writing if the device supports that.
    void zero(const ByteRange& range);
    /// Discards a range whose content isn't needed. Its content is undefined afterwards.
    void discard(const ByteRange& range);
    /// Extends a shorter file to this size.
    void extendTo(std::uint64_t size);
    void sync();

private:
    std::string name;
    os::FileDescriptor device;
    bool file = false;
    std::uint64_t bytes = 0;
    bool canDiscard = true;
};

} // namespace restore
