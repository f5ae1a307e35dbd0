#pragma once

#include "zephane/socket/Decompressor.h"
#include "zephane/wire/Frame.h"
#include "zephane/wire/Handshake.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <span>

namespace zephane::test {

inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Everything that one end sends: a mode byte, the messages of its handshake, and its stream.
class ZephanePeer {
public:
    explicit ZephanePeer(std::span<const std::uint8_t> input)
        : mode(input.empty() ? std::uint8_t{0} : input.front()),
          rest(input.empty() ? input : input.subspan(1)) {}

    /// Whether this end knows the secret, and so can prove what it says.
    [[nodiscard]] bool holdsSecret() const { return (mode & 1U) != 0; }
    [[nodiscard]] bool compresses() const { return (mode & 2U) != 0; }

    /// The next message of the handshake; shortened if the input ends.
    std::span<const std::uint8_t> message() {
        const std::size_t size = rest.size() < 2 ? rest.size() : wire::sizeOfMessage(rest.first<2>());
        return take(size);
    }

    /// Passes each piece of the stream after the handshake to `handle`. The stream is read in parts whose
    /// size the mode byte selects.
    void readStream(const std::function<void(const wire::FrameReader::Piece& piece)>& handle) {
        Decompressor decompressor;
        wire::FrameReader reader;
        std::size_t plain = 0;
        while (!rest.empty() && plain < most) {
            const auto part = take(partSizes.at(mode >> 6U));
            if (!compresses()) {
                plain += part.size();
                readFrames(reader, part, handle);
                continue;
            }
            decompressor.feed(part);
            for (auto piece = decompressor.next(); !piece.empty() && plain < most;
                 piece = decompressor.next()) {
                require(piece.size() <= wire::frameBytes);
                plain += piece.size();
                readFrames(reader, piece, handle);
            }
        }
    }

private:
    static constexpr std::size_t most = 4 * wire::mebibyte; // enough of a decompression bomb
    static constexpr std::array<std::size_t, 4> partSizes{std::size_t{1} << 20U, 1, 3, 100};

    std::span<const std::uint8_t> take(std::size_t count) {
        const auto taken = rest.first(std::min(count, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }

    static void readFrames(wire::FrameReader& reader, std::span<const std::uint8_t> part,
                           const std::function<void(const wire::FrameReader::Piece& piece)>& handle) {
        while (const auto piece = reader.next(part)) {
            require(!piece->payload.empty() && piece->payload.size() <= wire::frameBytes);
            handle(*piece);
        }
        require(part.empty());
    }

    std::uint8_t mode;
    std::span<const std::uint8_t> rest;
};

} // namespace zephane::test
