#pragma once

#include "zephane/socket/ByteStream.h"

#include <cstdint>

namespace zephane {

/// Counts the bytes read from and written to another stream.
/// Owns:    nothing; the other stream must outlive it.
/// Threads: one at a time, as for the other stream.
/// Fails:   with the exceptions of the other stream.
class CountingStream : public ByteStream {
public:
    explicit CountingStream(ByteStream& stream) : stream(stream) {}

    asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) override {
        const std::size_t count = co_await stream.readSome(buffer);
        readBytes += count;
        co_return count;
    }
    asio::awaitable<void> write(asio::const_buffer bytes) override {
        co_await stream.write(bytes);
        writtenBytes += bytes.size();
    }
    void close() noexcept override { stream.close(); }

    [[nodiscard]] std::uint64_t read() const noexcept { return readBytes; }
    [[nodiscard]] std::uint64_t written() const noexcept { return writtenBytes; }

private:
    ByteStream& stream;
    std::uint64_t readBytes = 0;
    std::uint64_t writtenBytes = 0;
};

} // namespace zephane
