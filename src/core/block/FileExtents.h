#pragma once

#include "core/block/BlockRange.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <functional>
#include <linux/fiemap.h>
#include <string>
#include <vector>

namespace agent::core::block {

/// Performs a FIEMAP request on a file descriptor. Returns like ioctl(2).
using ExtentQuery = std::function<int(int descriptor, fiemap& request)>;

/// The real query, FS_IOC_FIEMAP.
int queryExtents(int descriptor, fiemap& request);

/// The volume blocks of a file, as ascending ranges that may touch and overlap. Only blocks that belong to
/// this file completely, and to no other file, are included. Throws PosixError or another standard exception.
std::vector<BlockRange> getFileExtents(info::Logger& logger, std::uint32_t blockSize, const std::string& path,
                                       const ExtentQuery& query = queryExtents);

} // namespace agent::core::block
