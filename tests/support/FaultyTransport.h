#pragma once

#include "core/transport/ITransport.h"
#include "support/FailingCall.h"

#include <cerrno>
#include <memory>
#include <utility>

namespace agent::test {

/// Wraps a transport. One call fails with EIO before it has any effect: a read or write returns -1, or 0,
/// which is a failure too.
class FaultyTransport : public core::ITransport {
public:
    FaultyTransport(std::shared_ptr<core::ITransport> inner, int failingCall, std::int64_t failure = -1)
        : inner(std::move(inner)), failing(failingCall), failure(failure) {}

    std::int64_t seek(std::int64_t offset, int whence) override {
        return fails() ? -1 : inner->seek(offset, whence);
    }
    std::int64_t write(const void* data, std::uint64_t length) override {
        return fails() ? failure : inner->write(data, length);
    }
    bool connect(bool diffMerge) override { return !fails() && inner->connect(diffMerge); }
    std::int64_t read(void* data, std::uint64_t length) override {
        return fails() ? failure : inner->read(data, length);
    }
    void disconnect() override { inner->disconnect(); }
    bool punchHole(std::uint64_t length) override { return !fails() && inner->punchHole(length); }
    [[nodiscard]] bool supportsHolePunching() const override { return inner->supportsHolePunching(); }

    /// True once the failing call has happened.
    [[nodiscard]] bool hasFailed() const { return failing.hasHappened(); }

private:
    bool fails() {
        if (!failing.nextCallFails()) {
            return false;
        }
        errno = EIO;
        return true;
    }

    std::shared_ptr<core::ITransport> inner;
    FailingCall failing;
    std::int64_t failure;
};

} // namespace agent::test
