#include "seal/Starts.h"

#include "AtomicFile.h"
#include "Uuid.h"
#include "seal/Seal.h"

#include <algorithm>
#include <sstream>
#include <system_error>
#include <vector>

namespace tolvubd {

namespace {

constexpr std::size_t mostStarts = 8;
constexpr std::size_t largestRecord = std::size_t{4} << 10;

/// Empty when the file doesn't exist or isn't valid.
std::vector<std::string> readStarts(const std::string& path) {
    std::vector<std::string> starts;
    try {
        std::istringstream lines(readFile(path, largestRecord));
        for (std::string line; std::getline(lines, line);) {
            if (!isUuid(line)) {
                return {};
            }
            starts.push_back(line);
        }
    } catch (const std::system_error&) {
        return {};
    }
    return starts;
}

} // namespace

void noteStart(const std::string& path) {
    std::vector<std::string> starts = readStarts(path);
    const std::string now = thisStart();
    if (!starts.empty() && starts.back() == now) {
        return;
    }
    starts.push_back(now);
    std::string text;
    for (std::size_t index = starts.size() - std::min(starts.size(), mostStarts); index < starts.size();
         ++index) {
        text += starts[index] + "\n";
    }
    replaceFileDurably(path, text, ownerOnly);
}

std::string previousStart(const std::string& path) {
    const std::vector<std::string> starts = readStarts(path);
    const std::string now = thisStart();
    const auto last =
        std::find_if(starts.rbegin(), starts.rend(), [&](const std::string& start) { return start != now; });
    return last == starts.rend() ? std::string() : *last;
}

} // namespace tolvubd
