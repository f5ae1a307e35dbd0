#pragma once

#include "info/log/Logger.h"

#include <nlohmann/json.hpp>

#include <exception>

namespace agent::ordak {

/// Returns the result of `ask`. If `ask` throws, logs the reason and returns "[ERROR]", so that one
/// unavailable property doesn't fail the whole response.
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
