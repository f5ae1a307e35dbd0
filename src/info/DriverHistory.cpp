#include "common/File.h"
#include "common/Path.h"
#include "common/PosixError.h"
#include "info/BackupableVolume.h"
#include "info/CowFormat.h"
#include "info/DriverController.h"
#include "info/DriverFile.h"
#include "info/VolumeFiles.h"
#include "info/log/Logger.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace agent::info {

namespace {

using Access = DriverFile::Access;

/// A part of a table in memory. The tables of large volumes take hundreds of megabytes, so at most `maxBytes`
/// bytes of a table are in memory at a time.
class TablePiece {
public:
    static constexpr std::uint64_t maxBytes = std::uint64_t{8} << 20U;

    /// Has room for any piece of a table of this size, and for the header.
    explicit TablePiece(std::uint64_t tableSize)
        : entries(std::clamp(tableSize, cow::tableOffset, maxBytes) / cow::entrySize) {}

    std::span<std::byte> bytes(std::uint64_t length) {
        return std::as_writable_bytes(std::span(entries)).first(length);
    }
    void clear() { std::fill(entries.begin(), entries.end(), 0); }
    /// ORs `other` into this piece. Returns false if that changes nothing. Words are only ORed, so the
    /// machine's byte order makes no difference.
    bool merge(const TablePiece& other, std::uint64_t length) {
        std::uint64_t added = 0;
        for (std::size_t index = 0; index < length / cow::entrySize; ++index) {
            added |= other.entries[index] & ~entries[index];
            entries[index] |= other.entries[index];
        }
        return added != 0;
    }

private:
    std::vector<std::uint64_t> entries;
};

bool fail(Logger& logger, const std::string& what) {
    const int reason = errno;
    LogEntry(logger, level::error) << what << PosixError::describe(reason);
    return false;
}

bool fail(Logger& logger, const std::string& what, const DriverFile& file) {
    return fail(logger, what + file.path() + ": ");
}

bool failWithoutErrno(Logger& logger, const std::string& what) {
    LogEntry(logger, level::error) << what;
    return false;
}

/// Calls `step` with the length of each piece of a table, in order. Stops and returns false if a step does.
template <typename Step>
bool forEachPiece(std::uint64_t tableSize, const Step& step) {
    for (std::uint64_t left = tableSize; left > 0;) {
        const std::uint64_t length = std::min(left, TablePiece::maxBytes);
        if (!step(length)) {
            return false;
        }
        left -= length;
    }
    return true;
}

/// Writes the incremental history from a CoW file.
class HistoryCopy {
public:
    HistoryCopy(Logger& logger, DriverFile source, DriverFile history, std::uint64_t tableSize)
        : logger(logger),
          source(std::move(source)),
          history(std::move(history)),
          tableSize(tableSize),
          piece(tableSize) {}

    /// Syncs the history, because the driver begins its next record of changes when this has returned: from
    /// then on, the history must survive a power failure.
    bool run(bool zeroFill) {
        return copy(cow::tableOffset) && (zeroFill ? writeZeros() : copyTable()) &&
               (history.sync() || failToWrite());
    }

private:
    /// The zeros take gigabytes for a volume of terabytes, at the end of nearly every backup. So they are
    /// only written if the file system can't reserve the space. If that is because the volume is full,
    /// writing fails as well and reports it.
    bool writeZeros() {
        if (history.reserve(cow::tableOffset, tableSize)) {
            return true;
        }
        piece.clear();
        return forEachPiece(tableSize, [this](std::uint64_t length) { return write(length); });
    }

    bool copyTable() {
        return forEachPiece(tableSize, [this](std::uint64_t length) { return copy(length); });
    }

    bool copy(std::uint64_t length) {
        if (!source.read(piece.bytes(length))) {
            return fail(logger, "Unable to read from incremental file ", source);
        }
        return write(length);
    }

    bool write(std::uint64_t length) { return history.write(piece.bytes(length)) || failToWrite(); }

    bool failToWrite() { return fail(logger, "Unable to write to incremental history file ", history); }

    Logger& logger;
    DriverFile source;
    DriverFile history;
    std::uint64_t tableSize;
    TablePiece piece;
};

/// Merges the incremental history into a CoW file.
class HistoryMerge {
public:
    HistoryMerge(Logger& logger, DriverFile history, DriverFile incremental, std::uint64_t tableSize)
        : logger(logger),
          history(std::move(history)),
          incremental(std::move(incremental)),
          tableSize(tableSize),
          unsent(tableSize),
          changed(tableSize) {}

    bool run() {
        // Each of the two messages names the other one's file. Readers of the log know them that way.
        if (!history.seek(cow::tableOffset)) {
            return fail(logger, "Cannot seek past header in incremental file: ");
        }
        if (!incremental.seek(cow::tableOffset)) {
            return fail(logger, "Cannot seek past header in incremental history file: ");
        }
        std::uint64_t position = cow::tableOffset;
        return forEachPiece(tableSize, [&](std::uint64_t length) {
            const bool isMerged = merge(position, length);
            position += length;
            return isMerged;
        });
    }

private:
    bool merge(std::uint64_t position, std::uint64_t length) {
        if (hasNothingUnsent(position, length)) {
            return true;
        }
        if (!history.seek(position) || !history.read(unsent.bytes(length))) {
            return fail(logger, "Unable to read from incremental history file ", history);
        }
        if (!incremental.seek(position) || !incremental.read(changed.bytes(length))) {
            return fail(logger, "Unable to read from incremental file ", incremental);
        }
        if (!changed.merge(unsent, length)) {
            return true;
        }
        if (!incremental.seek(position) || !incremental.write(changed.bytes(length))) {
            return fail(logger, "Unable to write merge to incremental file ", incremental);
        }
        return true;
    }

    /// Usually true, which saves reading both files. A CoW file that ends too early must still be detected,
    /// hence the check of its size.
    bool hasNothingUnsent(std::uint64_t position, std::uint64_t length) {
        const std::optional<std::uint64_t> end = incremental.seekToEnd();
        return end && *end >= position + length && history.isHole(position, length);
    }

    Logger& logger;
    DriverFile history;
    DriverFile incremental;
    std::uint64_t tableSize;
    TablePiece unsent;
    TablePiece changed;
};

std::string withoutMountPoint(const BackupableVolume& volume) {
    return "Backupable volume for device " + volume.getDevice() + " doesn't have a mountpoint.";
}

std::string withoutCowFile(const DriverDeviceInfo& device) {
    return "Unable to make a new cow file name from existing device: " + device.cow_file;
}

} // namespace

bool DriverController::calculateCowFile(const DriverDeviceInfo& device, std::string& out) {
    if (device.cow_file.empty()) {
        return failWithoutErrno(logger, "calculate cow file got an empty cow file string.");
    }
    out = device.cow_file;
    if (out.back() == '1') {
        out.pop_back();
    } else {
        out.push_back('1');
    }
    return true;
}

std::string DriverController::getIncrementalHistoryPath(const BackupableVolume& volume) const {
    const std::vector<std::string>& mountPoints = volume.getMountPoints();
    return mountPoints.empty() ? std::string() : (Path(mountPoints.front()) / volume_files::history).str();
}

bool DriverController::hasIncrementalHistory(const BackupableVolume& volume) {
    const std::string path = getIncrementalHistoryPath(volume);
    return !path.empty() && file::exists(path);
}

void DriverController::removeIncrementalHistory(const BackupableVolume& volume) {
    const std::string path = getIncrementalHistoryPath(volume);
    if (!path.empty()) {
        static_cast<void>(std::remove(path.c_str()));
    }
}

/// While there is a snapshot, the CoW file that the device doesn't use now is the record of the changes that
/// this backup has to transfer. Without `zeroFill`, that record becomes the history.
bool DriverController::makeHistory(const BackupableVolume& volume, bool zeroFill) {
    const std::string historyPath = getIncrementalHistoryPath(volume);
    if (historyPath.empty()) {
        return failWithoutErrno(logger, withoutMountPoint(volume));
    }
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        return failWithoutErrno(logger, "Cannot create incremental history, device does not exist");
    }
    std::string name = device.cow_file;
    if ((!zeroFill && !calculateCowFile(device, name)) || name.empty()) {
        return failWithoutErrno(logger, withoutCowFile(device));
    }
    DriverFile source(Path(volume.getMountPoints().front()) / name, Access::read);
    if (!source) {
        return fail(logger, "Cannot make history, cannot open incremental file: ");
    }
    DriverFile history(historyPath, Access::replace);
    if (!history) {
        return fail(logger, "Cannot make history, cannot open incremental history file: ");
    }
    return HistoryCopy(logger, std::move(source), std::move(history), cow::tableSize(volume.getSize()))
        .run(zeroFill);
}

/// The device's current CoW file belongs to the snapshot. The record of changes is in the other one, which
/// the driver no longer writes, so the history can be merged into it.
bool DriverController::rollForward(const BackupableVolume& volume) {
    const std::string historyPath = getIncrementalHistoryPath(volume);
    if (historyPath.empty()) {
        return failWithoutErrno(logger, withoutMountPoint(volume));
    }
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        return failWithoutErrno(logger, "Cannot roll forward, device does not exist");
    }
    std::string name;
    if (!calculateCowFile(device, name)) {
        return failWithoutErrno(logger, withoutCowFile(device));
    }
    DriverFile history(historyPath, Access::read);
    if (!history) {
        return fail(logger, "Cannot roll forward, cannot open incremental history file ", history);
    }
    DriverFile incremental(Path(volume.getMountPoints().front()) / name, Access::update);
    if (!incremental) {
        return fail(logger, "Cannot roll forward, cannot open incremental file ", incremental);
    }
    if (!HistoryMerge(logger, std::move(history), std::move(incremental), cow::tableSize(volume.getSize()))
             .run()) {
        return false;
    }
    LogEntry(logger, level::debug) << "Successfully merged incremental history";
    return true;
}

} // namespace agent::info
