#include "FailureRecordingImage.h"

#include <exception>

namespace restore::check {

void FailureRecordingImage::read(std::span<std::byte> into, std::uint64_t offset) {
    try {
        image.read(into, offset);
    } catch (const std::exception& error) {
        if (firstFailure.empty()) {
            firstFailure = error.what();
        }
        throw;
    }
}

} // namespace restore::check
