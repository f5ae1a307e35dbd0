#include "os/FileDescriptor.h"
#include "seal/Fingerprint.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <sys/mman.h>
#include <unistd.h>

/// The fingerprint of a file system in arbitrary bytes: there must be none, or a complete one. The input is
/// that of SparseVolume.h; parts that it doesn't cover are holes in a file in memory.
namespace {

using Input = std::span<const std::uint8_t>;

constexpr std::size_t unit = 64;
constexpr std::size_t headSize = 4;
constexpr std::uint64_t largest = std::uint64_t{1} << 20; // KiB

std::uint64_t take(Input& rest, std::size_t width) {
    std::uint64_t value = 0;
    const std::size_t present = std::min(width, rest.size());
    for (std::size_t index = 0; index < present; ++index) {
        value |= std::uint64_t{rest[index]} << (8 * index);
    }
    rest = rest.subspan(present);
    return value;
}

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input rest(data, size);
    rest = rest.subspan(std::min(headSize, rest.size()));
    const std::uint64_t bytes = std::min(take(rest, 4), largest) * 1024;
    const os::FileDescriptor image(::memfd_create("image", MFD_CLOEXEC));
    require(::ftruncate(image.get(), static_cast<off_t>(bytes)) == 0);
    while (!rest.empty()) {
        const std::uint64_t offset = take(rest, 4) * unit;
        const std::size_t length = std::min<std::size_t>(take(rest, 1) * unit, rest.size());
        if (offset + length <= bytes) {
            require(::pwrite(image.get(), rest.data(), length, static_cast<off_t>(offset)) ==
                    static_cast<ssize_t>(length));
        }
        rest = rest.subspan(length);
    }
    if (const auto found = tolvubd::readFingerprint(image, bytes)) {
        require(!found->mount.empty() && found->content.starts_with(found->mount));
    }
    return 0;
}
