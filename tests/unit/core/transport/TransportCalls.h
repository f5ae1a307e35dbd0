#pragma once

#include "support/RecordingLogger.h"

#include <string>
#include <vector>

namespace agent::core {

using Bytes = std::vector<unsigned char>;
using Calls = std::vector<std::string>;
using Line = test::RecordingLogger::Line;

inline constexpr int absolute = 0; ///< as `whence` of a seek
inline constexpr int relative = 1; ///< as `whence` of a seek

inline const std::string slept = "nanosleep 1 0"; ///< the recorded sleep before a retry

} // namespace agent::core
