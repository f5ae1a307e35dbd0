#include "zephane/socket/Message.h"

#include "zephane/wire/ProtocolError.h"

#include <span>

namespace zephane {

namespace {

constexpr std::size_t lengthBytes = 2;

asio::awaitable<void> fill(ByteStream& stream, std::span<std::uint8_t> part) {
    while (!part.empty()) {
        const std::size_t count = co_await stream.readSome(asio::buffer(part.data(), part.size()));
        if (count == 0) {
            throw wire::ProtocolError("the other end has closed the connection within the handshake");
        }
        part = part.subspan(count);
    }
}

} // namespace

asio::awaitable<wire::Bytes> readMessage(ByteStream& stream) {
    wire::Bytes message(lengthBytes);
    co_await fill(stream, message);
    message.resize(wire::sizeOfMessage(std::span(message).first<lengthBytes>()));
    co_await fill(stream, std::span(message).subspan(lengthBytes));
    co_return message;
}

} // namespace zephane
