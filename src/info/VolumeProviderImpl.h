#pragma once

namespace agent::info {

/// What a VolumeProvider needs of GLib for as long as it lives.
class VolumeProviderImpl {
public:
    /// To be made while the process has one thread.
    VolumeProviderImpl();
    VolumeProviderImpl(const VolumeProviderImpl&) = delete;
    VolumeProviderImpl& operator=(const VolumeProviderImpl&) = delete;
    virtual ~VolumeProviderImpl() = default;
};

} // namespace agent::info
