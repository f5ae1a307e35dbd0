#pragma once

#include <cstdint>
#include <functional>
#include <string>

/// Functions that all kinds of images use.
namespace restore {

/// Throws std::runtime_error for a failed read of an image. `reason` may be empty if the log says more.
[[noreturn]] void throwReadFailure(const std::string& image, std::uint64_t offset,
                                   const std::string& reason = "");

/// The size of an image that begins at `offset` of a file or device with `all` bytes. Throws
/// std::runtime_error if nothing is left.
std::uint64_t bytesAfter(const std::string& image, std::uint64_t all, std::uint64_t offset);

/// Calls `tryRead`, which throws std::runtime_error for a failure, until it succeeds: up to five times, a
/// second apart, as a server may be restarted meanwhile. After the last failure, throws as throwReadFailure
/// does.
void readWithRetries(const std::string& image, std::uint64_t offset, const std::function<void()>& tryRead);

} // namespace restore
