#pragma once

#include "dm/Mapper.h"
#include "os/FileDescriptor.h"
#include "seal/BootRecord.h"
#include "seal/Fingerprint.h"
#include "seal/Seal.h"

#include <optional>
#include <string>

namespace tolvubd {

/// A volume in the boot record, as found when the machine starts or stops. Reads and writes go through
/// `device`, which is the volume itself if it has no layers, and its lowest layer otherwise.
///
/// Owns:    a descriptor of that device.
/// Threads: one at a time.
/// Fails:   std::system_error.
class TrackedVolume {
public:
    TrackedVolume(BootRecord::Volume record, const dm::Device& device);

    [[nodiscard]] std::optional<Seal> seal() const;
    [[nodiscard]] std::optional<Fingerprint> fingerprint() const;
    /// Whether the era target was shut down cleanly: later writes then bypassed it. Throws EBADMSG when that
    /// can't be determined.
    [[nodiscard]] bool wasEraShutDown() const;
    /// Writes the seal. If the volume is elsewhere according to LVM, throws ESTALE and writes nothing,
    /// because the seal's blocks may belong to other data by now.
    void write(const Seal& seal) const;

private:
    BootRecord::Volume record;
    dm::Device device;
    os::FileDescriptor file;
};

enum class Mounted { no, readOnly, forWriting };
Mounted mountedAs(const dm::Device& device);
/// Whether anything has a device open besides the file system that may be mounted from it. Looks several
/// times, because a program that has just made the device, or probes its content, has it open for a moment.
bool hasOtherUsers(const dm::Device& device);

} // namespace tolvubd
