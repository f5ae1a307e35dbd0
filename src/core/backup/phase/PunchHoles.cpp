#include "core/backup/phase/PunchHoles.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace agent::core::backup::phase {

PunchHoles::PunchHoles(std::shared_ptr<ITransport> transport,
                       std::unique_ptr<block::IBlockRangeProvider> unusedBlocks, std::uint32_t blockSize,
                       ICancel& cancel, std::uint64_t volumeBlocks)
    : transport(std::move(transport)),
      unusedBlocks(std::move(unusedBlocks)),
      blockSize(blockSize),
      cancel(cancel),
      volumeBlocks(volumeBlocks) {}

// A hole that can't be punched wastes space on the target but loses no data, so failures are ignored.
void PunchHoles::execute() {
    const block::BlockRangeIterator end = unusedBlocks->end();
    for (block::BlockRangeIterator range = unusedBlocks->begin(); range != end; ++range) {
        cancel.check();
        if (range->start < volumeBlocks) {
            punch({range->start, std::min(range->length, volumeBlocks - range->start)});
        }
    }
}

void PunchHoles::punch(const BlockRange& range) {
    const auto offset = static_cast<std::int64_t>(range.start * blockSize);
    if (transport->seek(offset, SEEK_SET) == offset) { // at any other position there may be data
        transport->punchHole(range.length * blockSize);
    }
}

std::string PunchHoles::getName() const {
    return "Punch Holes";
}

} // namespace agent::core::backup::phase
