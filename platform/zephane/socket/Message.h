#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/wire/Hello.h"

namespace zephane {

/// Reads one message of the handshake, whole, and nothing of what follows it. wire::ProtocolError for one
/// that is too long, or cut short. It has no time limit of its own.
asio::awaitable<wire::Bytes> readMessage(ByteStream& stream);

} // namespace zephane
