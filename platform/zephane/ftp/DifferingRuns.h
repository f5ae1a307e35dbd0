#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace zephane {

/// A part of a piece of data, in bytes.
struct Run {
    std::size_t offset = 0;
    std::size_t length = 0;

    bool operator==(const Run&) const = default;
};

/// The units (wire::digestUnit bytes each) of a piece of `length` bytes that differ; adjacent ones form one
/// run.
std::vector<Run> differingRuns(std::size_t length, const std::function<bool(const Run& unit)>& differs);

} // namespace zephane
