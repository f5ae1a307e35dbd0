#include "zephane/ftp/DifferingRuns.h"

#include "zephane/wire/Limits.h"

#include <algorithm>

namespace zephane {

std::vector<Run> differingRuns(std::size_t length, const std::function<bool(const Run& unit)>& differs) {
    std::vector<Run> runs;
    for (std::size_t offset = 0; offset < length; offset += wire::digestUnit) {
        const Run unit{offset, std::min(wire::digestUnit, length - offset)};
        if (!differs(unit)) {
            continue;
        }
        if (!runs.empty() && runs.back().offset + runs.back().length == offset) {
            runs.back().length += unit.length;
        } else {
            runs.push_back(unit);
        }
    }
    return runs;
}

} // namespace zephane
