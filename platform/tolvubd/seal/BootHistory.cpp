#include "seal/BootHistory.h"

#include "AtomicFile.h"
#include "Uuid.h"
#include "seal/Seal.h"

#include <algorithm>
#include <sstream>
#include <system_error>
#include <vector>

namespace tolvubd {

namespace {

constexpr std::size_t mostBoots = 8;
constexpr std::size_t largestRecord = std::size_t{4} << 10;

/// Empty when the file doesn't exist or isn't valid.
std::vector<std::string> readBootIds(const std::string& path) {
    std::vector<std::string> bootIds;
    try {
        std::istringstream lines(readFile(path, largestRecord));
        for (std::string line; std::getline(lines, line);) {
            if (!isUuid(line)) {
                return {};
            }
            bootIds.push_back(line);
        }
    } catch (const std::system_error&) {
        return {};
    }
    return bootIds;
}

} // namespace

void recordBoot(const std::string& path) {
    std::vector<std::string> bootIds = readBootIds(path);
    const std::string now = currentBootId();
    if (!bootIds.empty() && bootIds.back() == now) {
        return;
    }
    bootIds.push_back(now);
    std::string text;
    for (std::size_t index = bootIds.size() - std::min(bootIds.size(), mostBoots); index < bootIds.size();
         ++index) {
        text += bootIds[index] + "\n";
    }
    replaceFileDurably(path, text, ownerOnly);
}

std::string previousBootId(const std::string& path) {
    const std::vector<std::string> bootIds = readBootIds(path);
    const std::string now = currentBootId();
    const auto last = std::find_if(bootIds.rbegin(), bootIds.rend(),
                                   [&](const std::string& bootId) { return bootId != now; });
    return last == bootIds.rend() ? std::string() : *last;
}

} // namespace tolvubd
