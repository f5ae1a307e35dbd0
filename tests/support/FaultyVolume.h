#pragma once

#include "core/fs/IVolumeReader.h"
#include "support/FailingCall.h"

namespace agent::test {

/// Wraps a volume reader. One call fails before it has any effect.
class FaultyVolume : public core::IVolumeReader {
public:
    FaultyVolume(core::IVolumeReader& inner, int failingCall) : inner(inner), failing(failingCall) {}

    std::int64_t read(void* buffer, std::size_t length) override {
        return failing.nextCallFails() ? -1 : inner.read(buffer, length);
    }
    std::int64_t seek(std::int64_t offset, int whence) override {
        return failing.nextCallFails() ? -1 : inner.seek(offset, whence);
    }

    /// True once the failing call has happened.
    [[nodiscard]] bool hasFailed() const { return failing.hasHappened(); }

private:
    core::IVolumeReader& inner;
    FailingCall failing;
};

} // namespace agent::test
