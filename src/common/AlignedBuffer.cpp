#include "common/AlignedBuffer.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace agent {

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

std::string_view withoutDirectory(std::string_view file) {
    return file.substr(file.rfind('/') + 1); // npos + 1 is 0
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

std::string alignedMemoryFailure(std::size_t size, std::size_t alignment, const std::string& error, int line,
                                 const char* file) {
    return "Failed to create aligned memory of size: " + std::to_string(size) +
           ", alignment: " + std::to_string(alignment) + " from line: " + std::to_string(line) +
           " in file: " + std::string(withoutDirectory(file)) + ", error: " + error;
}

AlignedBuffer createAlignedBuffer(std::size_t size, std::size_t alignment, int line, const char* file) {
    try {
        return {size, alignment};
    } catch (const std::bad_alloc& error) {
        throw std::runtime_error(alignedMemoryFailure(size, alignment, error.what(), line, file));
    }
}

} // namespace agent
