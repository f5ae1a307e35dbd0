#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/wire/Proof.h"

#include <string>

namespace zephane {

/// The way to a server that a socket is given: a byte stream that can be connected. See ByteStream.
class Transport : public ByteStream {
public:
    /// Once, before anything else; gives up after wire::handshakeTime. `host` has to stay until then.
    virtual asio::awaitable<void> connect(const std::string& host, unsigned short port) = 0;
    [[nodiscard]] virtual wire::ChannelBinding channelBinding() = 0;
};

} // namespace zephane
