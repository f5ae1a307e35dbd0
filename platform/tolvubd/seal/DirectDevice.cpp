#include "seal/DirectDevice.h"

#include "Failure.h"
#include "FileAccess.h"

#include <algorithm>
#include <fcntl.h>
#include <limits>
#include <span>
#include <unistd.h>
#include <utility>

namespace tolvubd {

namespace {

constexpr std::uint64_t unit = 4096;

/// Calls `use` with each piece of the `length` bytes from `skip` on: its offset on the device, its offset in
/// the buffer and its length. Returns false when the places end early, or when `use` returns false.
template <class Use>
bool forPieces(const std::vector<Extent>& places, std::uint64_t skip, std::size_t length, const Use& use) {
    std::size_t done = 0;
    for (const Extent& place : places) {
        if (skip >= place.length) {
            skip -= place.length;
            continue;
        }
        const std::size_t part = std::min<std::uint64_t>(place.length - skip, length - done);
        if (part > 0 && !use(place.offset + skip, done, part)) {
            return false;
        }
        done += part;
        skip = 0;
    }
    return done == length;
}

} // namespace

os::FileDescriptor openDirect(const std::string& path, int flags) {
    return openFile(path, flags | O_DIRECT | O_DSYNC);
}

Fields readDirect(const os::FileDescriptor& device, std::uint64_t offset, std::size_t length) {
    const std::size_t before = offset % unit;
    if (offset > std::uint64_t{std::numeric_limits<std::int64_t>::max()} - length - unit) {
        return {std::vector<std::byte>(length), false};
    }
    os::AlignedBuffer buffer((before + length + unit - 1) / unit * unit, unit);
    const std::span<std::byte> all(buffer.data(), buffer.size());
    const std::size_t got = readAt(device, all, offset - before);
    const std::span<std::byte> wanted = all.subspan(before, length);
    return {std::vector<std::byte>(wanted.begin(), wanted.end()), got >= before + length};
}

bool readPlaces(const os::FileDescriptor& device, const std::vector<Extent>& places, std::uint64_t skip,
                os::AlignedBuffer& into) {
    const std::span<std::byte> all(into.data(), into.size());
    return forPieces(places, skip, all.size(), [&](std::uint64_t offset, std::size_t at, std::size_t length) {
        return readAt(device, all.subspan(at, length), offset) == length;
    });
}

void writePlaces(const os::FileDescriptor& device, const std::vector<Extent>& places, std::uint64_t skip,
                 const os::AlignedBuffer& from) {
    const std::span<const std::byte> all(from.data(), from.size());
    const bool fits =
        forPieces(places, skip, all.size(), [&](std::uint64_t offset, std::size_t at, std::size_t length) {
            writeAt(device, all.subspan(at, length), offset);
            return true;
        });
    if (!fits) {
        fail(EINVAL, "the places of a file end early");
    }
    checked(::fdatasync(device.get()), "bring it to the disk");
}

} // namespace tolvubd
