#include "os/AlignedBuffer.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <unistd.h>
#include <utility>

namespace os {

namespace {

/// The zeroed bytes, null for none. More than the address space holds is refused before the allocator sees
/// it: it would round such a size up to whole pages.
std::byte* allocate(std::size_t size) {
    if (size == 0) {
        return nullptr;
    }
    void* memory = nullptr;
    if (size > PTRDIFF_MAX || posix_memalign(&memory, static_cast<std::size_t>(getpagesize()), size) != 0) {
        throw std::bad_alloc();
    }
    std::memset(memory, 0, size);
    return static_cast<std::byte*>(memory);
}

} // namespace

AlignedBuffer::AlignedBuffer(std::size_t size, std::size_t alignment)
    : memory(allocate(size)), bytes(size), requestedAlignment(alignment) {}

AlignedBuffer::AlignedBuffer(AlignedBuffer&& other) noexcept
    : memory(std::move(other.memory)),
      bytes(std::exchange(other.bytes, 0)),
      requestedAlignment(other.requestedAlignment) {}

AlignedBuffer& AlignedBuffer::operator=(AlignedBuffer&& other) noexcept {
    memory = std::move(other.memory);
    bytes = std::exchange(other.bytes, 0);
    requestedAlignment = other.requestedAlignment;
    return *this;
}

} // namespace os
