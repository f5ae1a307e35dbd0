#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent::info {

/// The properties of a volume when it was discovered.
struct VolumeDescription {
    std::string device; ///< path, such as /dev/sda1
    std::string fileSystem;
    std::uint64_t size = 0; ///< bytes
    std::string uuid;
    std::string label;
    std::vector<std::string> mountPoints; ///< "<swap>" alone for swap space
    std::uint32_t blockSize = 0;          ///< bytes; 0 if not mounted
    std::uint64_t blockCount = 0;
    std::uint32_t sectorSize = 0; ///< bytes; 0 if it could not be read
    std::uint64_t sectorCount = 0;
    std::uint64_t hiddenSectors = 0;
    std::string partScheme; ///< "MBR", "GPT", another type of table, or empty
    std::string volumeType;
    bool mounted = false;
    bool readOnly = false;
    bool removable = false;
    bool osVolume = false;
    bool sysVolume = false;
};

/// A volume of this machine.
/// Owns:    its description.
/// Threads: any thread may call it; it never changes.
/// Fails:   only getSpaceFree fails; it throws PosixError.
class BackupableVolume {
public:
    explicit BackupableVolume(VolumeDescription description);
    BackupableVolume(const BackupableVolume&) = delete;
    BackupableVolume& operator=(const BackupableVolume&) = delete;
    BackupableVolume(BackupableVolume&&) = delete;
    BackupableVolume& operator=(BackupableVolume&&) = delete;
    virtual ~BackupableVolume() = default;

    [[nodiscard]] virtual const std::string& getUuid() const;
    [[nodiscard]] virtual const std::string& getLabel() const;
    [[nodiscard]] virtual const std::string& getDevice() const;
    /// The device's path without "/dev/".
    [[nodiscard]] virtual const std::string& getDeviceName() const;
    [[nodiscard]] virtual const std::string& getFileSystem() const;
    [[nodiscard]] virtual const std::string& getPartScheme() const;
    [[nodiscard]] virtual const std::string& getVolumeType() const;
    /// For messages: the UUID, followed by the first mount point if there is one.
    [[nodiscard]] virtual std::string getDisplayName() const;
    [[nodiscard]] virtual const std::vector<std::string>& getMountPoints() const;
    /// Whether the device node still exists.
    [[nodiscard]] virtual bool exists() const;
    [[nodiscard]] virtual bool isMounted() const;
    [[nodiscard]] virtual bool isReadOnly() const;
    [[nodiscard]] virtual bool isRemovable() const;
    [[nodiscard]] virtual bool isOSVolume() const;
    [[nodiscard]] virtual bool isSysVolume() const;
    [[nodiscard]] virtual std::uint64_t getSize() const;
    [[nodiscard]] virtual std::uint32_t getBlockSize() const;
    [[nodiscard]] virtual std::uint64_t getBlockCount() const;
    [[nodiscard]] virtual std::uint32_t getSectorSize() const;
    [[nodiscard]] virtual std::uint64_t getSectorCount() const;
    [[nodiscard]] virtual std::uint64_t getHiddenSectors() const;
    /// The current free space in bytes; 0 if the volume is not mounted. Throws PosixError if statvfs fails.
    [[nodiscard]] virtual std::uint64_t getSpaceFree() const;

private:
    VolumeDescription description;
    std::string deviceName;
};

} // namespace agent::info
