#pragma once

namespace agent::info {

/// Prepares GLib for a VolumeProvider.
/// Owns:    nothing.
/// Threads: the one that constructs it, while the process has no other.
/// Fails:   never.
class VolumeProviderImpl {
public:
    /// Create it while the process has only one thread.
    VolumeProviderImpl();
    VolumeProviderImpl(const VolumeProviderImpl&) = delete;
    VolumeProviderImpl& operator=(const VolumeProviderImpl&) = delete;
    virtual ~VolumeProviderImpl() = default;
};

} // namespace agent::info
