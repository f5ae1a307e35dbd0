#include "Fetch.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace agent::contract {

namespace {

constexpr std::ptrdiff_t guardBytes = 64; // before and after the buffer; must not be written to
constexpr std::uint8_t untouched = 0xa5;

std::uint8_t reversed(std::uint8_t byte) {
    unsigned bits = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        bits |= (byte >> bit & 1U) << (7 - bit);
    }
    return static_cast<std::uint8_t>(bits);
}

} // namespace

Fetch::Fetch(core::fs::IBlockBitmapChunkProvider& provider, const ElementMap& map, std::uint64_t startBlock,
             std::size_t bytes)
    : map(map), startBlock(startBlock) {
    std::vector<std::uint8_t> room(bytes + 2 * guardBytes, untouched);
    try {
        count = provider.getBitmapChunk(startBlock, room.data() + guardBytes, bytes);
    } catch (const std::runtime_error&) {
        count = -1;
    }
    const auto isUntouched = [](std::uint8_t byte) { return byte == untouched; };
    staysInside = std::all_of(room.begin(), room.begin() + guardBytes, isUntouched) &&
                  std::all_of(room.end() - guardBytes, room.end(), isUntouched);
    buffer.assign(room.begin() + guardBytes, room.end() - guardBytes);
    if (provider.isBitmapMsbFirst()) {
        std::transform(buffer.begin(), buffer.end(), buffer.begin(), reversed);
    }
}

testing::AssertionResult Fetch::isValid() const {
    const std::uint64_t capacity = buffer.size() * 8 / map.elementBits;
    if (!staysInside) {
        return isWrong("it writes outside of the buffer");
    }
    if (count > 0 && (static_cast<std::uint64_t>(count) > capacity || elementsLeft() == 0)) {
        return isWrong("it tells of " + std::to_string(count) + " elements");
    }
    if (count == 0 && elementsLeft() > 0 && capacity > 0) {
        return isWrong("it ends the map");
    }
    if (count <= 0) {
        return testing::AssertionSuccess();
    }
    const std::uint64_t elements = std::min(static_cast<std::uint64_t>(count), elementsLeft());
    if (!isUsedFrom(elements)) {
        return isWrong("it has something free behind the end");
    }
    return equalsTheMap(elements) ? testing::AssertionSuccess() : isWrong("its map is another one");
}

testing::AssertionResult Fetch::isTheRest() const {
    if (count < 0 || static_cast<std::uint64_t>(count) < elementsLeft()) {
        return isWrong("it gives " + std::to_string(count));
    }
    return isValid();
}

std::uint64_t Fetch::elementsLeft() const {
    return map.size - std::min(startBlock, map.size);
}

/// Compares whole bytes if the bits are at the same positions in both.
bool Fetch::equalsTheMap(std::uint64_t elements) const {
    const std::uint64_t bits = elements * map.elementBits;
    const std::uint64_t first = startBlock * map.elementBits;
    std::uint64_t bit = 0;
    if (first % 8 == 0) {
        if (std::memcmp(buffer.data(), map.bytes.data() + first / 8, bits / 8) != 0) {
            return false;
        }
        bit = bits / 8 * 8;
    }
    for (; bit < bits; ++bit) {
        if ((buffer[bit / 8] >> (bit % 8) & 1) != (map.bit(first + bit) ? 1 : 0)) {
            return false;
        }
    }
    return true;
}

/// Whether all bits from `element` up to the last one reported are set.
bool Fetch::isUsedFrom(std::uint64_t element) const {
    for (std::uint64_t bit = element * map.elementBits;
         bit < static_cast<std::uint64_t>(count) * map.elementBits; ++bit) {
        if ((buffer[bit / 8] >> (bit % 8) & 1) == 0) {
            return false;
        }
    }
    return true;
}

testing::AssertionResult Fetch::isWrong(const std::string& what) const {
    return testing::AssertionFailure()
           << "asked from " << startBlock << " on, with " << buffer.size() << " bytes, " << what;
}

} // namespace agent::contract
