#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace os {

/// Memory for direct I/O: aligned to the page size, which suits every device, and filled with zeros.
/// Owns:    the memory.
/// Threads: one thread at a time.
/// Fails:   the constructor throws std::bad_alloc; nothing else fails.
class AlignedBuffer {
public:
    /// Empty; nothing is allocated.
    AlignedBuffer() noexcept = default;
    /// `alignment` is the alignment that the device requires. It is only stored, for alignment(): the memory
    /// is aligned to the page size, a multiple of every device's alignment. A size of 0 allocates nothing.
    AlignedBuffer(std::size_t size, std::size_t alignment);
    AlignedBuffer(AlignedBuffer&& other) noexcept;
    AlignedBuffer& operator=(AlignedBuffer&& other) noexcept;
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;
    ~AlignedBuffer() = default;

    [[nodiscard]] std::byte* data() noexcept { return memory.get(); }
    [[nodiscard]] const std::byte* data() const noexcept { return memory.get(); }
    [[nodiscard]] std::size_t size() const noexcept { return bytes; }
    [[nodiscard]] bool empty() const noexcept { return bytes == 0; }
    [[nodiscard]] std::size_t alignment() const noexcept { return requestedAlignment; }

private:
    struct Free {
        void operator()(std::byte* pointer) const noexcept {
            // NOLINTNEXTLINE(cppcoreguidelines-no-malloc)
            std::free(pointer); // NOLINT(resources): this is the owner
        }
    };

    std::unique_ptr<std::byte[], Free> memory; // NOLINT(modernize-avoid-c-arrays)
    std::size_t bytes = 0;
    std::size_t requestedAlignment = 0;
};

} // namespace os
