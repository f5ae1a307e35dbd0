#include "os/ExtentRequest.h"

#include <cstring>

namespace os {

namespace {

constexpr std::size_t wordSize = sizeof(std::uint64_t);
constexpr std::size_t headerWords = sizeof(fiemap) / wordSize;
constexpr std::size_t extentWords = sizeof(fiemap_extent) / wordSize;
static_assert(sizeof(fiemap) % wordSize == 0 && sizeof(fiemap_extent) % wordSize == 0);

} // namespace

ExtentRequest::ExtentRequest(std::uint32_t extents) : words(headerWords + extents * extentWords) {
    header().fm_length = FIEMAP_MAX_OFFSET;
    header().fm_extent_count = extents;
}

fiemap_extent ExtentRequest::extent(std::uint32_t index) const noexcept {
    fiemap_extent extent{};
    std::memcpy(&extent, words.data() + headerWords + index * extentWords, sizeof extent);
    return extent;
}

} // namespace os
