#pragma once

#include "core/block/IBlockRangeProvider.h"

#include <memory>

namespace agent::core::block {

/// Another provider with a fixed size, for an excluder that must not count in the estimate.
/// Owns:    the other provider.
/// Threads: one at a time.
/// Fails:   passes the other provider's exceptions on; the constructor throws std::invalid_argument if that
///          is null.
class SizedBlockRangeProvider : public IBlockRangeProvider {
public:
    SizedBlockRangeProvider(std::unique_ptr<IBlockRangeProvider> base, std::uint64_t size);

    [[nodiscard]] BlockRangeIterator begin() const override { return base->begin(); }
    [[nodiscard]] BlockRangeIterator end() const override { return base->end(); }
    [[nodiscard]] std::uint64_t size() const override { return blocks; }
    [[nodiscard]] std::string name() const override { return base->name(); }

private:
    std::unique_ptr<IBlockRangeProvider> base;
    std::uint64_t blocks;
};

} // namespace agent::core::block
