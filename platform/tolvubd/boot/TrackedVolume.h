#pragma once

#include "dm/Mapper.h"
#include "os/FileDescriptor.h"
#include "seal/BootRecord.h"
#include "seal/Fingerprint.h"
#include "seal/Seal.h"

#include <optional>
#include <string>

namespace tolvubd {

/// A volume that the boot record names, as it is found when the machine starts or stops. All is read and
/// written by `device`, which is the volume itself where it has no layers, and else the one below them.
///
/// Owns:    a descriptor of that device.
/// Threads: one at a time.
/// Fails:   std::system_error.
class TrackedVolume {
public:
    TrackedVolume(BootRecord::Volume record, const dm::Device& device);

    [[nodiscard]] std::optional<Seal> seal() const;
    [[nodiscard]] std::optional<Fingerprint> fingerprint() const;
    /// Whether its era target was stopped in order: what came after that went past it. EBADMSG when that
    /// can't be known.
    [[nodiscard]] bool wasEraStopped() const;
    /// Makes the seal say this. ESTALE, and nothing is written, where LVM says that the volume lies
    /// elsewhere: what was the seal may be somebody else's.
    void write(const Seal& seal) const;

private:
    BootRecord::Volume record;
    dm::Device device;
    os::FileDescriptor file;
};

enum class Mounted { no, readOnly, forWriting };
Mounted mountedAs(const dm::Device& device);
/// Whether anybody has a device open beside the file system that may be mounted from it. Whoever has just
/// made it, or looks what is on it, may have it open for a moment.
bool isOpenBesides(const dm::Device& device);

} // namespace tolvubd
