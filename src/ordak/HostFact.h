#pragma once

#include "info/log/Logger.h"

#include <nlohmann/json.hpp>

#include <exception>

namespace agent::ordak {

/// What `ask` returns. A fact of the host that can't be had costs no more than itself: why is logged, and the
/// appliance is told "[ERROR]" in its place.
template <typename Ask>
nlohmann::json hostFact(info::Logger& logger, const Ask& ask) {
    try {
        return ask();
    } catch (const std::exception& error) {
        info::LogEntry(logger, info::level::error) << error.what();
        return "[ERROR]";
    }
}

} // namespace agent::ordak
