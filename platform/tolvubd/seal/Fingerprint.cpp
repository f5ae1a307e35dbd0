#include "seal/Fingerprint.h"

#include "Uuid.h"
#include "seal/FileSystemFingerprints.h"

namespace tolvubd {

std::string uuidAt(const Fields& super, std::size_t offset) {
    UuidBytes bytes{};
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes.at(index) = super.byte(offset + index);
    }
    return uuidText(bytes);
}

std::optional<Fingerprint> readFingerprint(const os::FileDescriptor& device, std::uint64_t size) {
    std::optional<Fingerprint> found = readExtFingerprint(device, size);
    return found ? found : readXfsFingerprint(device, size);
}

} // namespace tolvubd
