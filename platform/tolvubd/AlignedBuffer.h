#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <span>

namespace tolvubd {

/// Memory for direct reads.
class AlignedBuffer {
public:
    explicit AlignedBuffer(std::size_t size)
        : memory(static_cast<std::byte*>(::operator new(size, alignment))), size(size) {}

    [[nodiscard]] std::span<std::byte> bytes() const noexcept { return {memory.get(), size}; }

private:
    static constexpr std::align_val_t alignment{4096};

    struct Free {
        void operator()(std::byte* pointer) const noexcept { ::operator delete(pointer, alignment); }
    };

    std::unique_ptr<std::byte, Free> memory;
    std::size_t size;
};

} // namespace tolvubd
