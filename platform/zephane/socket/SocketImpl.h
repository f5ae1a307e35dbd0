#pragma once

#include "zephane/socket/Filters.h"

namespace zephane {

class Transport;

/// The connection that a client uses.
/// Owns:    the transport and the lists of filters.
/// Threads: one at a time.
/// Fails:   these calls don't fail; the transport fails as ByteStream does.
class SocketImpl {
public:
    virtual ~SocketImpl() = default;
    virtual Transport& transport() = 0;
    /// The filters of the stream that follows the handshake: one list for reading, one for writing.
    virtual Filters& filters() = 0;
};

} // namespace zephane
