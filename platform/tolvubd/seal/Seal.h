#pragma once

#include "Table.h"
#include "os/FileDescriptor.h"
#include "seal/Fingerprint.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolvubd {

/// The record at the beginning of `.tolvu.era`. After a restart of the machine, it shows which layers the
/// volume had, and whether they have recorded all writes.
struct Seal {
    enum class End {
        open,   ///< the layers are in place, or were when the machine stopped
        clean,  ///< the volume wasn't mounted writable; `fingerprint` is its final one
        broken, ///< never to be trusted again
    };

    End end = End::open;
    std::string bootId; ///< the kernel's boot_id when the seal was written
    Device device;
    std::optional<Fingerprint> fingerprint;

    bool operator==(const Seal&) const = default;
};

/// The size of the seal in `.tolvu.era`; the metadata of the era target follows it.
inline constexpr std::uint64_t sealSize = std::uint64_t{128} << 10;

/// Writes the seal to the disk, past the page cache, into the older one of two slots: after a crash, either
/// the old seal or the new one is found. `device` is the volume below its layers.
/// Fails: std::system_error, EFBIG when the seal doesn't fit.
void writeSeal(const os::FileDescriptor& device, const std::vector<Extent>& eraFile, const Seal& seal);
/// The newest sound seal; none when there is none, or its tracking isn't `id`. The content isn't trusted.
std::optional<Seal> readSeal(const os::FileDescriptor& device, const std::vector<Extent>& eraFile,
                             const std::string& id);

/// The kernel's boot_id of this start of the machine.
std::string currentBootId();

} // namespace tolvubd
