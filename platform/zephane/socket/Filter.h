#pragma once

#include <cstdint>
#include <span>

namespace zephane {

/// Changes a stream of bytes on its way: one object, one direction, one connection.
/// Owns:    what it needs to remember of the stream.
/// Threads: one.
/// Fails:   wire::ProtocolError for input that isn't what the other end's filter makes; not to be used again.
class Filter {
public:
    virtual ~Filter() = default;
    /// Takes the next piece of the stream, which has to stay until `next` has nothing more.
    virtual void feed(std::span<const std::uint8_t> piece) = 0;
    /// The next bytes of what becomes of it, at most wire::frameBytes; they hold until the next call. Empty
    /// when the piece is used up and all that belongs to it has been handed out: nothing is held back.
    virtual std::span<const std::uint8_t> next() = 0;
};

} // namespace zephane
