#pragma once

#include "Table.h"
#include "os/FileDescriptor.h"
#include "seal/Fingerprint.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolvubd {

/// What stands at the beginning of `.tolvu.era`, and tells after a restart of the machine what the volume's
/// layers were and whether they have seen all that was written.
struct Seal {
    enum class End {
        open,   ///< the layers are in place, or were when the machine stopped
        clean,  ///< nobody had the volume mounted any more; `fingerprint` is that of its last state
        broken, ///< never to be trusted again
    };

    End end = End::open;
    std::string start; ///< the kernel's boot_id at which it was written
    Device device;
    std::optional<Fingerprint> fingerprint;

    bool operator==(const Seal&) const = default;
};

/// Bytes of `.tolvu.era` that are the seal's; the metadata of the era target begins behind them.
inline constexpr std::uint64_t sealSize = std::uint64_t{128} << 10;

/// Writes the seal into one of two slots by turns, past the page cache and through to the disk: whoever comes
/// after a crash finds the old one or the new one. `device` is the volume below its layers.
/// Fails: std::system_error, EFBIG when it doesn't fit.
void writeSeal(const os::FileDescriptor& device, const std::vector<Extent>& eraFile, const Seal& seal);
/// The newest sound one; none when there is none, or not that of this `id`. Nothing is taken on trust.
std::optional<Seal> readSeal(const os::FileDescriptor& device, const std::vector<Extent>& eraFile,
                             const std::string& id);

/// The kernel's name for this start of the machine.
std::string thisStart();

} // namespace tolvubd
