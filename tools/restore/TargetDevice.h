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

/// The block device, or the file, that an image is written to. Past the page cache where that can be had:
/// what is read back comes from the disk.
/// Owns:    the descriptor. A block device is opened so that nobody can mount it meanwhile.
/// Threads: one may write while another reads.
/// Fails:   std::runtime_error, which says what to do where somebody can do something. PosixError with ENOSPC
///          where a file finds no room.
class TargetDevice {
public:
    /// Opens it, only for reading if it is only looked at. Refuses what is mounted, used by something else or
    /// neither a block device nor a file.
    TargetDevice(std::string path, bool mayWrite);

    [[nodiscard]] const std::string& path() const { return name; }
    /// Bytes. Of a file, which grows, those that it may have.
    [[nodiscard]] std::uint64_t size() const { return bytes; }
    [[nodiscard]] bool isFile() const { return file; }
    /// What is on it, in words: a file system, a table of partitions, a part of something; empty for nothing
    /// that is known.
    [[nodiscard]] std::string content() const;
    /// What a restore that was interrupted has left.
    [[nodiscard]] std::optional<Marker> marker() const;

    void read(std::span<std::byte> into, std::uint64_t offset) const;
    void write(std::span<const std::byte> from, std::uint64_t offset);
    /// Reads as zeros from then on, without room or writes where the device knows how.
    void zero(const ByteRange& range);
    /// Nobody needs what is there. It may read as anything afterwards.
    void discard(const ByteRange& range);
    /// Makes a file as long as that.
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
