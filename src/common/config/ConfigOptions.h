#pragma once

#include <cstdint>
#include <regex>
#include <string>
#include <typeinfo>
#include <unordered_map>
#include <vector>

namespace agent {

/// One row of the table of options.
struct ConfigOption {
    std::string defaultValue;   ///< As text, whatever the type.
    const std::type_info* type; ///< bool, unsigned long or std::string.
    std::uint64_t minimum = 0;  ///< Inclusive; for unsigned long only.
    std::uint64_t maximum = 0;  ///< Inclusive; for unsigned long only.
};

/// The keys that may be set: those in the table, and those that one of the patterns matches completely.
struct ConfigOptions {
    std::vector<std::regex> patterns;
    std::unordered_map<std::string, ConfigOption> table;
};

} // namespace agent
