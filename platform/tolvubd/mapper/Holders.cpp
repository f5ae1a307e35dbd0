#include "mapper/Holders.h"

#include "FileAccess.h"
#include "mapper/Targets.h"

#include <filesystem>
#include <optional>
#include <sstream>
#include <sys/sysmacros.h>
#include <system_error>

namespace tolvubd {

namespace {

/// Parses MAJOR:MINOR.
std::optional<dev_t> numberIn(const std::string& text) {
    std::istringstream words(text);
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    char colon = 0;
    if (!(words >> majorNumber >> colon >> minorNumber) || colon != ':') {
        return std::nullopt;
    }
    return makedev(majorNumber, minorNumber);
}

} // namespace

std::vector<dm::Device> holdersOf(const dm::Device& device) {
    std::vector<dm::Device> found;
    std::error_code gone;
    for (const auto& entry :
         std::filesystem::directory_iterator("/sys/dev/block/" + nameOf(device) + "/holders", gone)) {
        const auto number = numberIn(readToEnd(entry.path() / "dev"));
        const auto holder = number ? dm::findByNumber(*number) : std::nullopt;
        if (holder) {
            found.push_back(*holder);
        }
    }
    return found;
}

} // namespace tolvubd
