#include "mapper/Targets.h"

#include "Failure.h"
#include "dm/FilePlaces.h"

#include <numeric>
#include <sstream>
#include <sys/sysmacros.h>

namespace tolvubd {

namespace {

std::vector<std::uint64_t> numbersIn(std::string text) {
    for (char& letter : text) {
        letter = letter == '/' ? ' ' : letter;
    }
    std::istringstream words(text);
    std::vector<std::uint64_t> numbers;
    for (std::uint64_t number = 0; words >> number;) {
        numbers.push_back(number);
    }
    return numbers;
}

} // namespace

std::string nameOf(const dm::Device& device) {
    return std::to_string(major(device.number)) + ":" + std::to_string(minor(device.number));
}

std::uint64_t bytesIn(const std::vector<Extent>& extents) {
    return std::accumulate(extents.begin(), extents.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const Extent& extent) { return sum + extent.length; });
}

dm::Targets piecesOn(const dm::Device& device, const std::vector<Extent>& places, std::uint64_t skip,
                     std::uint64_t length) {
    dm::Targets targets;
    std::uint64_t position = 0;
    for (const Extent& part : dm::partOf(places, skip, length)) {
        targets.push_back({position / dm::sector, part.length / dm::sector, "linear",
                           nameOf(device) + " " + std::to_string(part.offset / dm::sector)});
        position += part.length;
    }
    return targets;
}

dm::Targets eraOn(const dm::Device& meta, const dm::Device& mid, const Layers& layers, std::uint64_t size) {
    return {{0, size, "era", nameOf(meta) + " " + nameOf(mid) + " " + std::to_string(layers.blockSectors)}};
}

/// The status: metadata block size, used and total metadata blocks, era, and the block of a held metadata
/// snapshot.
std::uint32_t eraIn(const dm::Targets& status) {
    constexpr std::size_t before = 3;
    if (status.size() == 1 && status[0].type == "era") {
        const auto numbers = numbersIn(status[0].parameters);
        if (numbers.size() > before) {
            return static_cast<std::uint32_t>(numbers[before]);
        }
    }
    fail(EIO, "the era target");
}

bool isEraNearlyFull(const dm::Targets& status) {
    constexpr std::size_t total = 2;
    constexpr std::uint64_t most = 95; // per cent
    if (status.size() != 1 || status[0].type != "era") {
        return false;
    }
    const auto numbers = numbersIn(status[0].parameters);
    return numbers.size() > total && numbers[1] > numbers[total] / 100 * most;
}

/// The status of a valid snapshot: used and total sectors, and the sectors of its own metadata. Otherwise it
/// is a word.
std::optional<StoreRoom> roomIn(const dm::Targets& status) {
    if (status.size() != 1 || status[0].type != "snapshot") {
        return std::nullopt;
    }
    const auto numbers = numbersIn(status[0].parameters);
    return numbers.size() >= 2 ? std::optional(StoreRoom{numbers[0] * dm::sector, numbers[1] * dm::sector})
                               : std::nullopt;
}

} // namespace tolvubd
