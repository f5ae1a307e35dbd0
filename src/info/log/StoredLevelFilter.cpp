#include "info/log/StoredLevelFilter.h"

#include "info/log/Logger.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace agent::info {

namespace {

constexpr const char* levelKey = "log_level";
constexpr std::array<std::string_view, 7> names = {"min",  "critical", "error", "warning",
                                                   "info", "debug",    "max"};

std::string storedText(ILogLevelStore& store) {
    try {
        return store.getConfigValue(levelKey);
    } catch (const std::exception&) {
        return {};
    }
}

} // namespace

std::string levelName(int level) {
    const bool known = level >= level::min && level <= level::max;
    return std::string(known ? names.at(static_cast<std::size_t>(level - level::min)) : "unknown");
}

void StoredLevelFilter::setLevel(int level) {
    current = level;
    if (store != nullptr) {
        store->setConfigValue(levelKey, levelName(level));
    }
}

void StoredLevelFilter::load(Logger& logger, ILogLevelStore& levelStore) {
    store = &levelStore;
    std::string text = storedText(levelStore);
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    const auto* const found = std::find(names.begin(), names.end(), text);
    if (found != names.end()) {
        current = static_cast<int>(found - names.begin()) + level::min;
        LogEntry(logger, level::debug) << "Logger level loaded from database: " << text;
    } else if (!text.empty()) {
        LogEntry(logger, level::warning)
            << "Database entry for log_level was not valid, updating to default: " << levelName(current);
        setLevel(current);
    }
}

bool StoredLevelFilter::pass(const std::string& /*message*/, int level, LogTime /*time*/) const {
    return current >= level;
}

} // namespace agent::info
