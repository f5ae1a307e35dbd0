#pragma once

#include <cstdint>
#include <span>

namespace zephane {

/// Transforms a stream of bytes. One object is for one direction of one connection.
/// Owns:    the state of the transformation.
/// Threads: one at a time.
/// Fails:   wire::ProtocolError for input that the other end's filter can't have made; the filter can't be
///          used any more then.
class Filter {
public:
    virtual ~Filter() = default;
    /// Takes the next piece of the stream, which must stay valid until `next` returns nothing more.
    virtual void feed(std::span<const std::uint8_t> piece) = 0;
    /// Returns the next bytes of the result, at most wire::frameBytes; they are valid until the next call.
    /// Empty when the whole piece is transformed and returned: nothing is held back.
    virtual std::span<const std::uint8_t> next() = 0;
};

} // namespace zephane
