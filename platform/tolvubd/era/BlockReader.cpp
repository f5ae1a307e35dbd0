#include "era/BlockReader.h"

#include "Failure.h"
#include "FileAccess.h"

#include <algorithm>
#include <string>

namespace tolvubd::era {

namespace {

constexpr std::size_t mostInRun = 256; // blocks, so 1 MiB
/// If at most this many blocks are between two wanted ones, reading them too is cheaper than another request.
constexpr std::uint64_t mostBetween = 16;

std::size_t runLength(std::span<const Wanted> wanted) {
    std::size_t length = 1;
    while (length < wanted.size() && wanted[length].place - wanted.front().place < mostInRun &&
           wanted[length].place - wanted[length - 1].place <= mostBetween) {
        ++length;
    }
    return length;
}

} // namespace

BlockReader::BlockReader(const os::FileDescriptor& device, std::uint64_t size)
    : device(device),
      claimed(size / blockSize),
      buffer(std::min<std::uint64_t>(blocks(), mostInRun) * blockSize, blockSize) {}

Wanted BlockReader::claim(std::uint64_t place, std::uint64_t key) {
    if (place >= blocks()) {
        fail(EBADMSG,
             "the era metadata names block " + std::to_string(place) + " of " + std::to_string(blocks()));
    }
    if (claimed[place]) {
        fail(EBADMSG, "the era metadata names block " + std::to_string(place) + " twice");
    }
    claimed[place] = true;
    return {place, key};
}

void BlockReader::read(std::vector<Wanted> wanted, const BlockKind& kind, const Visit& visit) {
    std::ranges::sort(wanted, {}, &Wanted::place);
    for (std::span<const Wanted> rest(wanted); !rest.empty();) {
        const std::size_t length = runLength(rest);
        readRun(rest.first(length), kind, visit);
        rest = rest.subspan(length);
    }
}

void BlockReader::readRun(std::span<const Wanted> run, const BlockKind& kind, const Visit& visit) {
    const std::uint64_t begin = run.front().place;
    const std::span into(buffer.data(), (run.back().place - begin + 1) * blockSize);
    if (readAt(device, into, begin * blockSize) != into.size()) {
        fail(EBADMSG, "the era metadata ends in a read from block " + std::to_string(begin));
    }
    for (const Wanted& wanted : run) {
        const Block block(into.subspan((wanted.place - begin) * blockSize).first<blockSize>());
        if (!block.isSound(kind, wanted.place)) {
            fail(EBADMSG, "the checksum of block " + std::to_string(wanted.place) + " of the era metadata");
        }
        visit(wanted.key, block);
    }
}

} // namespace tolvubd::era
