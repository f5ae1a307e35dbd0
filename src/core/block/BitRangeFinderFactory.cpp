#include "core/block/BitRangeFinderFactory.h"

#include "core/block/BitRangeFinder.h"
#include "core/block/U64RangeFinder.h"

#include <stdexcept>

namespace agent {

std::unique_ptr<IRangeFinder> BitRangeFinderFactory::createRangeFinder(int type, bool targetValue,
                                                                       bool msbFirst) const {
    switch (type) {
    case bitFinder:
        return std::make_unique<BitRangeFinder>(targetValue, msbFirst);
    case wordFinder:
        return std::make_unique<U64RangeFinder>(targetValue);
    default:
        throw std::runtime_error("Unknown bit range finder type");
    }
}

} // namespace agent
