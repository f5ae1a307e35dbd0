#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/fiemap.h>
#include <vector>

namespace os {

/// The buffer of a FIEMAP ioctl, which asks the kernel for the extents of a file: a header, followed by the
/// extent records that the kernel fills in.
/// Owns:    the memory of the header and the records; the records are initially zero.
/// Threads: one thread at a time.
/// Fails:   the constructor throws std::bad_alloc.
class ExtentRequest {
public:
    /// The request covers the whole file and has room for `extents` records.
    explicit ExtentRequest(std::uint32_t extents);

    fiemap& header() noexcept { return *static_cast<fiemap*>(static_cast<void*>(words.data())); }
    /// `index` must be below the constructor's `extents`.
    [[nodiscard]] fiemap_extent extent(std::uint32_t index) const noexcept;

private:
    std::vector<std::uint64_t> words; // not bytes, for the alignment that fiemap needs
};

} // namespace os
