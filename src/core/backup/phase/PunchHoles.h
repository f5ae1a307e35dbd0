#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"
#include "core/transport/ITransport.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::backup::phase {

/// Deallocates the volume's unused blocks on the target, where an earlier backup may have left data. The map
/// of used blocks may cover more blocks than the volume has, and another volume's image may follow on the
/// target, so nothing past `volumeBlocks` is touched.
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
