#pragma once

namespace agent::info {

/// Prepares GLib for a VolumeProvider.
class VolumeProviderImpl {
public:
    /// Create it while the process has only one thread.
    VolumeProviderImpl();
    VolumeProviderImpl(const VolumeProviderImpl&) = delete;
    VolumeProviderImpl& operator=(const VolumeProviderImpl&) = delete;
    virtual ~VolumeProviderImpl() = default;
};

} // namespace agent::info
