#pragma once

#include <cstdint>
#include <functional>
#include <string>

/// What all kinds of images have in common.
namespace restore {

/// Throws std::runtime_error for a read of an image that has failed, for a reason that is told by its text
/// or, if that is empty, by a line in the log.
[[noreturn]] void throwUnread(const std::string& image, std::uint64_t offset, const std::string& reason = "");

/// The bytes of an image that begins at `offset` of something that has `all`. Throws std::runtime_error if
/// none are left.
std::uint64_t bytesBehind(const std::string& image, std::uint64_t all, std::uint64_t offset);

/// Calls `tryRead`, which throws std::runtime_error for a failure, until it does well: five times, a second
/// after each other, as a server may be restarted meanwhile. Throws what throwUnread does after the last.
void readPatiently(const std::string& image, std::uint64_t offset, const std::function<void()>& tryRead);

} // namespace restore
