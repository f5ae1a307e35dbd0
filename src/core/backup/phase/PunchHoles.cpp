#include "core/backup/phase/PunchHoles.h"

#include <cstdio>
#include <utility>

namespace agent::core::backup::phase {

PunchHoles::PunchHoles(std::shared_ptr<ITransport> transport,
                       std::unique_ptr<block::IBlockRangeProvider> unusedBlocks, std::uint32_t blockSize,
                       ICancel& cancel)
    : transport(std::move(transport)),
      unusedBlocks(std::move(unusedBlocks)),
      blockSize(blockSize),
      cancel(cancel) {}

// A hole that can't be punched costs the target space and nobody any data.
void PunchHoles::execute() {
    const block::BlockRangeIterator end = unusedBlocks->end();
    for (block::BlockRangeIterator range = unusedBlocks->begin(); range != end; ++range) {
        cancel.check();
        const auto offset = static_cast<std::int64_t>(range->start * blockSize);
        if (transport->seek(offset, SEEK_SET) == offset) { // anywhere else there may be data
            transport->punchHole(range->length * blockSize);
        }
    }
}

std::string PunchHoles::getName() const {
    return "Punch Holes";
}

} // namespace agent::core::backup::phase
