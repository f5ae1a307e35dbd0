#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "core/operation/ICancel.h"
#include "core/operation/IPhase.h"
#include "core/transport/ITransport.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::backup::phase {

/// Gives back on the target what nobody uses on the volume: an earlier image may have data there.
class PunchHoles : public IPhase {
public:
    PunchHoles(std::shared_ptr<ITransport> transport,
               std::unique_ptr<block::IBlockRangeProvider> unusedBlocks, std::uint32_t blockSize,
               ICancel& cancel);
    void execute() override;
    [[nodiscard]] std::string getName() const override;

private:
    const std::shared_ptr<ITransport> transport;
    const std::unique_ptr<block::IBlockRangeProvider> unusedBlocks;
    const std::uint32_t blockSize;
    ICancel& cancel;
};

} // namespace agent::core::backup::phase
