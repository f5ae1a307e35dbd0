#pragma once

#include "core/block/BlockRange.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <functional>
#include <linux/fiemap.h>
#include <string>
#include <vector>

namespace agent::core::block {

/// Asks the file system where the file of a descriptor lies, by the rules of ioctl(2).
using ExtentQuery = std::function<int(int descriptor, fiemap& request)>;

/// The query that the kernel answers.
int queryExtents(int descriptor, fiemap& request);

/// Which blocks of a volume a file lies in, as ascending ranges that may touch and overlap. Only blocks that
/// belong to the file as a whole, and to no other, are among them. Throws PosixError, or another standard
/// exception.
std::vector<BlockRange> getFileExtents(info::Logger& logger, std::uint32_t blockSize, const std::string& path,
                                       const ExtentQuery& query = queryExtents);

} // namespace agent::core::block
