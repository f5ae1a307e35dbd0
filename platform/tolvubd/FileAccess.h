#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>

namespace tolvubd {

/// The mode of files and nodes: the contents of a volume are for root only.
inline constexpr mode_t ownerOnly = 0600;

/// Opens with O_CLOEXEC; throws on failure.
os::FileDescriptor openFile(const std::string& path, int flags, mode_t mode = 0);

/// Reads until the span is full or the file ends; returns how many bytes it got.
std::size_t readAt(const os::FileDescriptor& file, std::span<std::byte> into, std::uint64_t offset);
/// The text of a file of the kernel, such as one in /proc, whose size stat doesn't report.
std::string readToEnd(const std::string& path);
/// Writes the whole span.
void writeAt(const os::FileDescriptor& file, std::span<const std::byte> from, std::uint64_t offset);

void syncFile(const os::FileDescriptor& file, const std::string& path);
/// Makes changes of the directory's entries durable.
void syncDirectory(const std::string& path);
/// Writes all dirty data of a file system to its device.
void syncFileSystem(const std::string& mountPoint);
/// Removes a file; succeeds when there is none.
void removeFile(const std::string& path);

} // namespace tolvubd
