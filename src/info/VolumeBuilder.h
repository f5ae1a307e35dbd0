#pragma once

#include "info/BackupableVolume.h"
#include "info/UdisksSession.h"
#include "info/log/Logger.h"

#include <memory>

namespace agent::info {

/// Describes a volume with the values from udisks2 and from the volume's device and file system.
/// Owns:    nothing; logger and session must outlive it.
/// Threads: only the thread that uses the session may use it.
/// Fails:   `build` throws std::runtime_error if the object has no block device.
class VolumeBuilder {
public:
    VolumeBuilder(Logger& logger, const UdisksSession& session) : logger(logger), session(session) {}

    /// Null if the object is neither a file system nor swap space.
    [[nodiscard]] std::shared_ptr<BackupableVolume> build(UDisksObject* object) const;

private:
    [[nodiscard]] VolumeDescription describe(UDisksObject* object, UDisksFilesystem* filesystem,
                                             bool isSwap) const;
    void describeBlocks(VolumeDescription& volume, UDisksObject* object, UDisksBlock* block) const;
    void describeSectors(VolumeDescription& volume) const;
    [[nodiscard]] unsigned readSectorSize(const std::string& device) const;
    [[nodiscard]] bool isRemovable(UDisksBlock* block) const;
    [[nodiscard]] std::string partitionScheme(UDisksObject* object) const;

    Logger& logger;
    const UdisksSession& session;
};

} // namespace agent::info
