#include "common/AlignedBuffer.h"

#include <new>
#include <stdexcept>
#include <string_view>

namespace agent {

namespace {

std::string_view withoutDirectory(std::string_view file) {
    return file.substr(file.rfind('/') + 1); // npos + 1 is 0
}

} // namespace

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
