#pragma once

#include "zephane/socket/SocketImpl.h"

#include <memory>

namespace zephane {

/// A transport, and the filters for the stream that goes through it.
/// Owns:    the transport and the filters.
/// Threads: one at a time.
/// Fails:   only the constructor.
class BasicSocket : public SocketImpl {
public:
    /// Throws std::invalid_argument without a transport.
    explicit BasicSocket(std::unique_ptr<Transport> transport);
    BasicSocket(const BasicSocket&) = delete;
    BasicSocket& operator=(const BasicSocket&) = delete;
    ~BasicSocket() override;

    Transport& transport() override { return *owned; }
    Filters& filters() override { return lists; }

private:
    std::unique_ptr<Transport> owned;
    Filters lists;
};

} // namespace zephane
