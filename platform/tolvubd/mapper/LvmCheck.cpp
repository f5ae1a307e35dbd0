#include "mapper/LvmCheck.h"

#include "SystemLog.h"
#include "lvm/LogicalVolume.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <sstream>
#include <sys/sysmacros.h>
#include <vector>

namespace tolvubd {

namespace {

constexpr const char* lvmPrefix = "LVM-";

/// Parses a linear target: the device as MAJOR:MINOR, and the sector on it where the target begins.
std::optional<VolumePiece> pieceOf(const dm::Target& target) {
    std::istringstream words(target.parameters);
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    char colon = 0;
    std::uint64_t offset = 0;
    if (target.type != "linear" || !(words >> majorNumber >> colon >> minorNumber >> offset) ||
        colon != ':') {
        return std::nullopt;
    }
    return VolumePiece{target.start, target.length, makedev(majorNumber, minorNumber), offset};
}

std::optional<std::vector<VolumePiece>> piecesOf(const dm::Targets& targets) {
    std::vector<VolumePiece> pieces;
    for (const dm::Target& target : targets) {
        const auto piece = pieceOf(target);
        if (!piece) {
            return std::nullopt;
        }
        append(pieces, *piece);
    }
    return pieces;
}

std::vector<dev_t> devicesOf(const std::vector<VolumePiece>& pieces) {
    std::vector<dev_t> devices;
    for (const VolumePiece& piece : pieces) {
        if (std::ranges::find(devices, piece.device) == devices.end()) {
            devices.push_back(piece.device);
        }
    }
    return devices;
}

} // namespace

bool matchesLvmMetadata(const std::string& volume, const dm::Device& lower) {
    if (!volume.starts_with(lvmPrefix)) {
        return true;
    }
    const auto pieces = piecesOf(dm::liveTable(lower));
    if (!pieces) {
        return false;
    }
    try {
        return readLogicalVolume(volume, devicesOf(*pieces)) == pieces;
    } catch (const std::exception& error) {
        logLine(Severity::error, "where " + volume + " lies can't be read: " + error.what());
        return false;
    }
}

} // namespace tolvubd
