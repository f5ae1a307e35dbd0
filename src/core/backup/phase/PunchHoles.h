#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"
#include "core/transport/ITransport.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::backup::phase {

/// Gives back on the target what nobody uses on the volume: an earlier image may have data there. A map of
/// used blocks may tell of more blocks than the volume has, and behind the volume there may be another one.
class PunchHoles : public IPhase {
public:
    PunchHoles(std::shared_ptr<ITransport> transport,
               std::unique_ptr<block::IBlockRangeProvider> unusedBlocks, std::uint32_t blockSize,
               ICancel& cancel, std::uint64_t volumeBlocks);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    void punch(const BlockRange& range);

    const std::shared_ptr<ITransport> transport;
    const std::unique_ptr<block::IBlockRangeProvider> unusedBlocks;
    const std::uint32_t blockSize;
    ICancel& cancel;
    const std::uint64_t volumeBlocks;
};

} // namespace agent::core::backup::phase
