#pragma once

#include "info/log/Logger.h"

#include <nlohmann/json.hpp>

#include <exception>

namespace agent::ordak {

/// Returns the result of `query`. If `query` throws, logs the reason and returns "[ERROR]", so that one
/// unavailable property doesn't fail the whole response.
template <typename Query>
nlohmann::json propertyOrError(info::Logger& logger, const Query& query) {
    try {
        return query();
    } catch (const std::exception& error) {
        info::LogEntry(logger, info::level::error) << error.what();
        return "[ERROR]";
    }
}

} // namespace agent::ordak
