#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>

namespace tolvubd {

/// Of files and nodes: what is on a volume isn't for everybody's eyes.
inline constexpr mode_t ownerOnly = 0600;

/// Opens close-on-exec, or throws.
os::FileDescriptor openFile(const std::string& path, int flags, mode_t mode = 0);

/// Reads until the span is full or the file ends; returns how many bytes it got.
std::size_t readAt(const os::FileDescriptor& file, std::span<std::byte> into, std::uint64_t offset);
/// The text of a file of the kernel's, which has no size to be asked for.
std::string readToEnd(const std::string& path);
/// Writes the whole span.
void writeAt(const os::FileDescriptor& file, std::span<const std::byte> from, std::uint64_t offset);

void syncFile(const os::FileDescriptor& file, const std::string& path);
/// Makes the names in the directory durable.
void syncDirectory(const std::string& path);
/// Brings all that was written to a file system to its device.
void syncFileSystem(const std::string& mountPoint);
/// Removes a file; one that is not there is fine.
void removeFile(const std::string& path);

} // namespace tolvubd
