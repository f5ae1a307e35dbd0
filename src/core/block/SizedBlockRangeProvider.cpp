#include "core/block/SizedBlockRangeProvider.h"

#include <stdexcept>

namespace agent::core::block {

SizedBlockRangeProvider::SizedBlockRangeProvider(std::unique_ptr<IBlockRangeProvider> base,
                                                 std::uint64_t size)
    : base(std::move(base)), blocks(size) {
    if (!this->base) {
        throw std::invalid_argument("SizedBlockRangeProvider requires a base");
    }
}

} // namespace agent::core::block
