#include "Reading.h"

#include "core/transport/Retry.h"

#include <stdexcept>

namespace restore {

void throwReadFailure(const std::string& image, std::uint64_t offset, const std::string& reason) {
    throw std::runtime_error("reading " + image + " at byte " + std::to_string(offset) + " failed" +
                             (reason.empty() ? "" : ": " + reason));
}

std::uint64_t bytesAfter(const std::string& image, std::uint64_t all, std::uint64_t offset) {
    if (all <= offset) {
        throw std::runtime_error(image + " has " + std::to_string(all) + " bytes: none from byte " +
                                 std::to_string(offset) + " on, where the image is said to begin");
    }
    return all - offset;
}

void readWithRetries(const std::string& image, std::uint64_t offset, const std::function<void()>& tryRead) {
    for (int attempt = 1;; ++attempt) {
        try {
            tryRead();
            return;
        } catch (const std::runtime_error& error) {
            if (attempt == agent::core::maxTries) {
                throwReadFailure(image, offset, error.what());
            }
        }
        agent::core::sleepBeforeRetry();
    }
}

} // namespace restore
