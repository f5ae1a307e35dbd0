#pragma once

#include <cstdint>
#include <string>

namespace agent::core::fs {

/// The negative results of the parser, and of NTFSRecordReader.
namespace ntfs_error {
inline constexpr std::int64_t refused = -1;
inline constexpr std::int64_t noSectorsPerCluster = -174;
inline constexpr std::int64_t clusterCountsDiffer = -186;
inline constexpr std::int64_t startWithinByte = -201;
inline constexpr std::int64_t bitmapTooSmall = -226;
inline constexpr std::int64_t recordUnreadable = -308;
inline constexpr std::int64_t recordCutShort = -312;
inline constexpr std::int64_t recordWithoutMagic = -320;
inline constexpr std::int64_t recordTorn = -324;
inline constexpr std::int64_t recordOfAnother = -331;
} // namespace ntfs_error

/// Thrown and caught within the parser, which then provides no map: with wrong data, used clusters could be
/// taken for free ones.
struct NTFSError {
    std::string reason; ///< the text for the log
};

} // namespace agent::core::fs
