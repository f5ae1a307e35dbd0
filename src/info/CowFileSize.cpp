#include "info/CowFileSize.h"

#include "common/config/IConfigData.h"
#include "common/json/WholeNumber.h"
#include "info/log/Logger.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace agent::info {

namespace {

constexpr std::uint64_t bytesPerMiB = 1'048'576;
constexpr std::uint64_t minDefaultMiB = 1024;
constexpr std::uint64_t maxDefaultMiB = 10240;
/// A file on FAT can't reach 4 GiB.
constexpr std::uint64_t maxOnFatMiB = 4095;

std::uint64_t toMiB(std::uint64_t bytes) {
    return (bytes + bytesPerMiB - 1) / bytesPerMiB;
}

std::uint64_t defaultSizeMiB(std::uint64_t volumeSizeBytes) {
    return std::clamp(toMiB(volumeSizeBytes / 10), minDefaultMiB, maxDefaultMiB);
}

/// The CoW file must leave room for the volume's own data.
std::uint64_t withinVolume(std::uint64_t size, std::uint64_t volumeSizeBytes) {
    return std::max(std::min(size, toMiB(volumeSizeBytes / 2)), minCowFileMiB);
}

std::string keyOf(const std::string& uuid) {
    return "volumes." + uuid + ".cowFileSizeMiB";
}

} // namespace

CowFileSize::CowFileSize(const IConfig& config) : config(config) {}

std::uint64_t CowFileSize::getCowFileSizeMiB(Logger& logger, const std::string& uuid,
                                             std::uint64_t volumeSizeBytes, const std::string& fileSystem) {
    const std::uint64_t size = getWantedSizeMiB(logger, uuid, volumeSizeBytes);
    const std::uint64_t clamped = withinVolume(size, volumeSizeBytes);
    if (clamped != size) {
        LogEntry(logger, level::warning)
            << "Invalid cow file size (" << size << ") Clamping to (" << clamped << ")";
    }
    return fileSystem == "vfat" ? std::min(clamped, maxOnFatMiB) : clamped;
}

std::uint64_t CowFileSize::getWantedSizeMiB(Logger& logger, const std::string& uuid,
                                            std::uint64_t volumeSizeBytes) const {
    try {
        const std::uint64_t size = getCustomSizeMiB(uuid);
        LogEntry(logger, level::debug)
            << "Found the " << keyOf(uuid) << " configuration option (" << size << ")";
        return size;
    } catch (const std::invalid_argument&) {
        return defaultSizeMiB(volumeSizeBytes);
    }
}

std::uint64_t CowFileSize::getCustomSizeMiB(const std::string& uuid) const {
    const auto* const document = dynamic_cast<const IConfigData*>(&config);
    const nlohmann::json stored = document == nullptr ? nlohmann::json::object() : document->dump();
    const auto value = stored.find(keyOf(uuid)); // end() if `stored` is not an object
    const std::optional<std::uint64_t> size =
        value != stored.end() ? wholeNumber<std::uint64_t>(*value) : std::nullopt;
    if (size.value_or(0) == 0) {
        throw std::invalid_argument("A custom cow file size for volume " + uuid + " does not exist!");
    }
    return *size;
}

} // namespace agent::info
