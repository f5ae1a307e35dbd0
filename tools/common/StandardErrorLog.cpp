#include "StandardErrorLog.h"

#include "info/log/LogLevel.h"

#include <iostream>

namespace tools {

agent::info::Logger standardErrorLog(const std::string& program, bool isVerbose) {
    const int threshold = isVerbose ? agent::info::level::debug : agent::info::level::error;
    return agent::info::Logger(
        [threshold, program](const std::string& message, int level, agent::info::LogTime /*time*/) {
            if (level <= threshold) {
                std::cerr << program << ": " << message;
            }
        },
        [threshold](int level) { return level <= threshold; });
}

} // namespace tools
