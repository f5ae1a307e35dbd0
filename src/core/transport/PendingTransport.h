#pragma once

#include "core/transport/ITransport.h"

namespace agent::core {

/// Stands for the file protocol until its transport is there: a request for it is accepted, and its backup
/// fails for want of a connection.
class PendingTransport : public ITransport {
public:
    std::int64_t seek(std::int64_t offset, int whence) override;
    std::int64_t write(const void* data, std::uint64_t length) override;
    bool connect(bool diffMerge) override;
    std::int64_t read(void* data, std::uint64_t length) override;
    void disconnect() override;
    bool punchHole(std::uint64_t length) override;
    [[nodiscard]] bool supportsHolePunching() const override;
};

} // namespace agent::core
