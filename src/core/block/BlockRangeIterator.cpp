#include "core/block/BlockRangeIterator.h"

#include <stdexcept>

namespace agent::core::block {

void throwPastTheEnd(const std::string& providerName) {
    throw std::out_of_range("Tried to get past-the-end of " + providerName);
}

} // namespace agent::core::block
