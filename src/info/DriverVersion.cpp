#include "info/DriverVersion.h"

#include <charconv>
#include <system_error>

namespace agent::info {

DriverVersion scanDriverVersion(const std::string& text) {
    DriverVersion version{};
    const char* position = text.data();
    const char* const end = position + text.size();
    for (int& part : version) {
        const auto [next, error] = std::from_chars(position, end, part);
        if (error != std::errc() || next == end || *next != '.') {
            break;
        }
        position = next + 1;
    }
    return version;
}

} // namespace agent::info
