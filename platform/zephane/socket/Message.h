#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/wire/Hello.h"

namespace zephane {

/// Reads exactly one message of the handshake. Throws wire::ProtocolError for one that is too long or cut
/// short. Has no time limit of its own.
asio::awaitable<wire::Bytes> readMessage(ByteStream& stream);

} // namespace zephane
