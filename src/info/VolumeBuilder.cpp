#include "info/VolumeBuilder.h"

#include "common/PosixError.h"
#include "os/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/statvfs.h>

namespace agent::info {

namespace {

/// udisks2 returns null for a value that it doesn't know.
std::string text(const gchar* value) {
    return value == nullptr ? "" : value;
}

std::vector<std::string> mountPointsOf(UDisksFilesystem* filesystem) {
    std::vector<std::string> mountPoints;
    const gchar* const* next =
        filesystem == nullptr ? nullptr : udisks_filesystem_get_mount_points(filesystem);
    for (; next != nullptr && *next != nullptr; ++next) {
        mountPoints.emplace_back(*next);
    }
    return mountPoints;
}

bool contains(const std::vector<std::string>& texts, std::string_view text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::vector<std::string> splitAtCommas(const std::string& text) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');) {
        parts.push_back(part);
    }
    return parts;
}

/// The value of a key in the dictionary of a configuration entry, if it is a byte string; else empty.
std::string byteString(GVariant* dictionary, const char* key) {
    const GVariantOwner value(g_variant_lookup_value(dictionary, key, g_variant_type_checked_("ay")));
    return value ? g_variant_get_bytestring(value.get()) : "";
}

/// The mount options that /etc/fstab has for a device.
std::vector<std::string> fstabOptions(UDisksBlock* block) {
    std::vector<std::string> options;
    const GVariantOwner configuration(udisks_block_dup_configuration(block));
    const gsize count = configuration ? g_variant_n_children(configuration.get()) : 0;
    for (gsize index = 0; index < count; ++index) {
        const GVariantOwner entry(g_variant_get_child_value(configuration.get(), index));
        const GVariantOwner type(g_variant_get_child_value(entry.get(), 0));
        if (std::string_view(g_variant_get_string(type.get(), nullptr)) == "fstab") {
            const GVariantOwner dictionary(g_variant_get_child_value(entry.get(), 1));
            options = splitAtCommas(byteString(dictionary.get(), "opts"));
        }
    }
    return options;
}

/// Returns nothing if the volume isn't mounted or statvfs fails.
std::optional<struct statvfs> statusOf(const VolumeDescription& volume) {
    struct statvfs status{};
    if (!volume.mounted || ::statvfs(volume.mountPoints.front().c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

bool isReadOnly(UDisksBlock* block, const std::optional<struct statvfs>& status) {
    if (udisks_block_get_read_only(block) != FALSE) {
        return true;
    }
    return status ? (status->f_flag & ST_RDONLY) != 0 : contains(fstabOptions(block), "ro");
}

/// Sets the file system and, for swap space, the placeholder for its mount point.
void describeContent(VolumeDescription& volume, UDisksBlock* block) {
    const std::string usage = text(udisks_block_get_id_usage(block));
    const std::string type = text(udisks_block_get_id_type(block));
    if (usage == "filesystem") {
        volume.fileSystem = type;
    } else if (usage == "other" && type == "swap") {
        volume.fileSystem = type;
        volume.mountPoints.emplace_back("<swap>");
    }
}

} // namespace

std::shared_ptr<BackupableVolume> VolumeBuilder::build(UDisksObject* object) const {
    if (object == nullptr) {
        LogEntry(logger, level::debug) << "Volume UDisksObject is null.";
        return nullptr;
    }
    const GObjectOwner<UDisksFilesystem> filesystem(udisks_object_get_filesystem(object));
    const GObjectOwner<UDisksSwapspace> swapspace(udisks_object_get_swapspace(object));
    if (!filesystem && !swapspace) {
        LogEntry(logger, level::debug) << "Object is neither a filesystem nor swapspace.";
        return nullptr;
    }
    return std::make_shared<BackupableVolume>(
        describe(object, filesystem.get(), static_cast<bool>(swapspace)));
}

VolumeDescription VolumeBuilder::describe(UDisksObject* object, UDisksFilesystem* filesystem,
                                          bool isSwap) const {
    const GObjectOwner<UDisksBlock> block(udisks_object_get_block(object));
    if (!block) {
        throw std::runtime_error("The object has no block device.");
    }
    VolumeDescription volume;
    volume.mountPoints = mountPointsOf(filesystem);
    volume.osVolume = contains(volume.mountPoints, "/");
    volume.sysVolume = contains(volume.mountPoints, "/boot");
    volume.device = text(udisks_block_get_device(block.get()));
    volume.uuid = text(udisks_block_get_id_uuid(block.get()));
    volume.label = text(udisks_block_get_id_label(block.get()));
    volume.size = udisks_block_get_size(block.get());
    volume.mounted = !volume.mountPoints.empty() && !isSwap;
    describeBlocks(volume, object, block.get());
    describeContent(volume, block.get());
    volume.removable = isRemovable(block.get());
    volume.partScheme = partitionScheme(object);
    LogEntry(logger, level::debug) << "device: " << volume.device << ", sectors: " << volume.sectorCount
                                   << ", sector size: " << volume.sectorSize << ", devsize: " << volume.size;
    return volume;
}

void VolumeBuilder::describeBlocks(VolumeDescription& volume, UDisksObject* object,
                                   UDisksBlock* block) const {
    const std::optional<struct statvfs> status = statusOf(volume);
    volume.readOnly = isReadOnly(block, status);
    volume.blockSize = status ? static_cast<std::uint32_t>(status->f_bsize) : 0;
    describeSectors(volume);
    if (volume.blockSize == 0) {
        return;
    }
    const GObjectOwner<UDisksLoop> loop(udisks_object_get_loop(object));
    volume.blockCount = loop ? status->f_blocks : volume.size / volume.blockSize;
    if (const std::uint64_t remainder = volume.size % volume.blockSize; remainder != 0) {
        LogEntry(logger, level::warning)
            << "Device size " << volume.size << " is not evenly divisible by the block size "
            << volume.blockSize << ", ignoring " << remainder << " bytes at the end.";
    }
}

void VolumeBuilder::describeSectors(VolumeDescription& volume) const {
    volume.sectorSize = readSectorSize(volume.device);
    volume.sectorCount = volume.sectorSize == 0 ? 0 : volume.size / volume.sectorSize;
}

unsigned VolumeBuilder::readSectorSize(const std::string& device) const {
    const os::FileDescriptor descriptor(::open(device.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor) {
        LogEntry(logger, level::warning) << "Cannot open volume \"" << device << "\" for reading.";
        return 0;
    }
    int size = 0;
    if (::ioctl(descriptor.get(), BLKSSZGET, &size) != 0) {
        LogEntry(logger, level::warning) << "Could not get sector size for device: " << device << ". ("
                                         << PosixError::describe(errno) << ")";
        return 0;
    }
    return static_cast<unsigned>(size);
}

bool VolumeBuilder::isRemovable(UDisksBlock* block) const {
    const GObjectOwner<UDisksObject> object = session.object(udisks_block_get_drive(block));
    const GObjectOwner<UDisksDrive> drive(object ? udisks_object_get_drive(object.get()) : nullptr);
    return drive && udisks_drive_get_removable(drive.get()) != FALSE;
}

std::string VolumeBuilder::partitionScheme(UDisksObject* object) const {
    const GObjectOwner<UDisksPartition> partition(udisks_object_get_partition(object));
    if (!partition) {
        return "";
    }
    const GObjectOwner<UDisksObject> disk = session.object(udisks_partition_get_table(partition.get()));
    const GObjectOwner<UDisksPartitionTable> table(disk ? udisks_object_get_partition_table(disk.get())
                                                        : nullptr);
    const std::string type = table ? text(udisks_partition_table_get_type_(table.get())) : "";
    if (type == "dos") {
        return "MBR";
    }
    return type == "gpt" ? "GPT" : type;
}

} // namespace agent::info
