#pragma once

#include "zephane/socket/Filters.h"

namespace zephane {

class Transport;

/// What a client speaks through.
/// Owns:    the transport.
/// Threads: one at a time.
/// Fails:   see Transport.
class SocketImpl {
public:
    virtual ~SocketImpl() = default;
    virtual Transport& transport() = 0;
    /// Those of the stream that follows the handshake: of what is read first, of what is written second.
    virtual Filters& filters() = 0;
};

} // namespace zephane
