#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/wire/Proof.h"

#include <string>

namespace zephane {

/// A byte stream that connects to a server.
/// Owns:    the connection; the destructor ends it.
/// Threads: one at a time, that of the executor on which `connect` runs.
/// Fails:   asio::system_error; the transport can't be used any more then.
class Transport : public ByteStream {
public:
    /// Connects; to be called once, before anything else. Gives up after a time limit, by default
    /// wire::handshakeTime. `host` must stay valid until then.
    virtual asio::awaitable<void> connect(const std::string& host, unsigned short port) = 0;
    [[nodiscard]] virtual wire::ChannelBinding channelBinding() = 0;
};

} // namespace zephane
