#pragma once

#include <asio/awaitable.hpp>
#include <asio/buffer.hpp>
#include <cstddef>

namespace zephane {

/// A connection to one peer, both directions of which are used at once.
/// Owns:    the connection; destroying the object ends it.
/// Threads: one at a time (that of its executor, or a strand of it).
/// Fails:   asio::system_error; the connection is of no use then.
class ByteStream {
public:
    virtual ~ByteStream() = default;
    /// At least one byte, or 0 when the peer has ended its side in the orderly way.
    virtual asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) = 0;
    /// All of it.
    virtual asio::awaitable<void> write(asio::const_buffer bytes) = 0;
    /// At once; reads and writes under way end with asio::error::operation_aborted.
    virtual void close() noexcept = 0;
};

} // namespace zephane
