#include "os/AlignedBuffer.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace os {

namespace {

/// From this size on, madvise lets the kernel zero each page when it is first touched: a buffer that is large
/// enough for the map of the largest volume stays mostly untouched if the volume is small. Smaller memory is
/// often reused by the allocator and still mapped, so it is simply overwritten.
constexpr std::size_t lazyBytes = std::size_t{1024} * 1024;

void fillWithZeros(std::byte* memory, std::size_t size, std::size_t pageBytes) {
    const std::size_t pages = size < lazyBytes ? 0 : size - size % pageBytes;
    const bool isLazy = pages != 0 && madvise(memory, pages, MADV_DONTNEED) == 0; // fails if it is locked
    const std::size_t left = isLazy ? pages : 0;
    std::memset(memory + left, 0, size - left);
}

/// Returns zeroed memory, or null if `size` is 0. Refuses a size above PTRDIFF_MAX itself, because the
/// allocator would round such a size up to whole pages.
std::byte* allocate(std::size_t size) {
    if (size == 0) {
        return nullptr;
    }
    void* memory = nullptr;
    const auto pageBytes = static_cast<std::size_t>(getpagesize());
    if (size > PTRDIFF_MAX || posix_memalign(&memory, pageBytes, size) != 0) {
        throw std::bad_alloc();
    }
    auto* const bytes = static_cast<std::byte*>(memory);
    fillWithZeros(bytes, size, pageBytes);
    return bytes;
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
