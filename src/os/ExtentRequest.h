#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/fiemap.h>
#include <vector>

namespace os {

/// What the kernel fills when it is asked where a file lies: a header, and the records of extents behind it.
/// Owns:    the memory of both, zeros at first.
/// Threads: one at a time.
/// Fails:   std::bad_alloc when it is made.
class ExtentRequest {
public:
    /// Asks for all of the file; `extents` is for how many records there is room.
    explicit ExtentRequest(std::uint32_t extents);

    fiemap& header() noexcept { return *static_cast<fiemap*>(static_cast<void*>(words.data())); }
    /// `index` is below what the request was made for.
    [[nodiscard]] fiemap_extent extent(std::uint32_t index) const noexcept;

private:
    std::vector<std::uint64_t> words; // for their alignment
};

} // namespace os
