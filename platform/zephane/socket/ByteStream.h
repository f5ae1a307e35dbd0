#pragma once

#include <asio/awaitable.hpp>
#include <asio/buffer.hpp>
#include <cstddef>

namespace zephane {

/// A connection to one peer. One coroutine may read while another one writes.
/// Owns:    the connection; the destructor ends it.
/// Threads: one at a time: that of its executor, or a strand of it.
/// Fails:   asio::system_error; the connection can't be used any more then.
class ByteStream {
public:
    virtual ~ByteStream() = default;
    /// Reads at least one byte; returns 0 when the peer has closed its side cleanly.
    virtual asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) = 0;
    /// Writes all bytes.
    virtual asio::awaitable<void> write(asio::const_buffer bytes) = 0;
    /// Closes the connection at once; pending reads and writes end with asio::error::operation_aborted.
    virtual void close() noexcept = 0;
};

} // namespace zephane
