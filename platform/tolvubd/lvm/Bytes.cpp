#include "lvm/Bytes.h"

#include "Failure.h"
#include "FileAccess.h"
#include "os/AlignedBuffer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

namespace tolvubd::lvm {
namespace {

/// The alignment of direct I/O that suits every sector size.
constexpr std::uint64_t alignment = 4096;

/// The limit of an offset and of a length: the kernel takes an offset as negative from 2^63 on.
constexpr std::uint64_t largestOffset = std::uint64_t{1} << 62U;

constexpr std::array<std::uint32_t, 256> makeRemainders() {
    std::array<std::uint32_t, 256> remainders{};
    for (std::uint32_t byte = 0; byte < remainders.size(); ++byte) {
        std::uint32_t remainder = byte;
        for (int bit = 0; bit < 8; ++bit) {
            remainder = remainder >> 1U ^ ((remainder & 1U) != 0 ? 0xedb88320U : 0U);
        }
        remainders[byte] = remainder;
    }
    return remainders;
}

constexpr std::array<std::uint32_t, 256> remainders = makeRemainders();

} // namespace

void failOn(const std::string& what) {
    fail(EBADMSG, "LVM's metadata: " + what);
}

std::string readBytes(const os::FileDescriptor& file, std::uint64_t offset, std::size_t length) {
    if (offset > largestOffset || length > largestOffset) {
        failOn("no device is so large");
    }
    const std::uint64_t skipped = offset % alignment;
    os::AlignedBuffer buffer((skipped + length + alignment - 1) / alignment * alignment, alignment);
    const std::size_t got = readAt(file, std::span(buffer.data(), buffer.size()), offset - skipped);
    if (got < skipped + length) {
        failOn("the device ends before it");
    }
    std::string bytes(length, '\0');
    std::copy_n(buffer.data() + skipped, length, std::as_writable_bytes(std::span(bytes)).data());
    return bytes;
}

std::uint32_t checksum(std::string_view bytes, std::uint32_t start) {
    std::uint32_t sum = start;
    for (const char byte : bytes) {
        sum = sum >> 8U ^ remainders[(sum ^ static_cast<unsigned char>(byte)) & 0xffU];
    }
    return sum;
}

} // namespace tolvubd::lvm
