#pragma once

#include "core/fs/IVolumeReader.h"

namespace agent::test {

/// Another volume of which one call fails: the `failingCall`th, counting every operation from 1 on. Counts
/// on, so that a test can make call 1, 2, 3… fail until nothing fails any more.
class FaultyVolume : public core::IVolumeReader {
public:
    FaultyVolume(core::IVolumeReader& inner, int failingCall) : inner(inner), failingCall(failingCall) {}

    std::int64_t read(void* buffer, std::size_t length) override {
        return fails() ? -1 : inner.read(buffer, length);
    }
    std::int64_t seek(std::int64_t offset, int whence) override {
        return fails() ? -1 : inner.seek(offset, whence);
    }

    /// True once the call that was to fail has come.
    [[nodiscard]] bool hasFailed() const { return calls >= failingCall; }

private:
    bool fails() { return ++calls == failingCall; }

    core::IVolumeReader& inner;
    int failingCall;
    int calls = 0;
};

} // namespace agent::test
