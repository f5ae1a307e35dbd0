#pragma once

#include "Fields.h"
#include "seal/Fingerprint.h"

namespace tolvubd {

/// Each function reads one kind of file system; none for any other, and for one that isn't sound.
std::optional<Fingerprint> readExtFingerprint(const os::FileDescriptor& device, std::uint64_t size);
std::optional<Fingerprint> readXfsFingerprint(const os::FileDescriptor& device, std::uint64_t size);

/// The UUID at `offset` of a superblock, as text.
std::string uuidAt(const Fields& super, std::size_t offset);

} // namespace tolvubd
