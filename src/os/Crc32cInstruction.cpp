#include "os/Crc32c.h"

#ifdef __x86_64__

#include <cstring>
#include <nmmintrin.h>

namespace os {

namespace {

/// Each step waits for the result of the previous one. Several interleaved streams would be faster still, but
/// a backup only computes the checksum of 10 MiB of a volume, which come over the network.
__attribute__((target("sse4.2"))) std::uint32_t sumByInstruction(std::span<const std::byte> bytes) noexcept {
    std::uint64_t crc = 0xffffffff;
    std::uint64_t word = 0;
    for (; bytes.size() >= sizeof word; bytes = bytes.subspan(sizeof word)) {
        std::memcpy(&word, bytes.data(), sizeof word);
        crc = _mm_crc32_u64(crc, word);
    }
    auto last = static_cast<std::uint32_t>(crc);
    for (const std::byte byte : bytes) {
        last = _mm_crc32_u8(last, std::to_integer<std::uint8_t>(byte));
    }
    return ~last;
}

} // namespace

Crc32cFunction crc32cByInstruction() noexcept {
    return __builtin_cpu_supports("sse4.2") ? sumByInstruction : nullptr;
}

} // namespace os

#else

os::Crc32cFunction os::crc32cByInstruction() noexcept {
    return nullptr;
}

#endif
