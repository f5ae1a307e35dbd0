#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <sys/types.h>

namespace tolvubd {

/// Owns one open file descriptor, or none (-1).
class Descriptor {
public:
    Descriptor() noexcept = default;
    explicit Descriptor(int number) noexcept : number(number) {}
    Descriptor(Descriptor&& other) noexcept : number(other.number) { other.number = -1; }
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    [[nodiscard]] int get() const noexcept { return number; }
    explicit operator bool() const noexcept { return number >= 0; }
    /// Closes what is held; errno stays as it is.
    void reset() noexcept;

private:
    int number = -1;
};

/// Opens close-on-exec, or throws.
Descriptor openFile(const std::string& path, int flags, mode_t mode = 0);

/// Reads until the span is full or the file ends; returns how many bytes it got.
std::size_t readAt(const Descriptor& file, std::span<std::byte> into, std::uint64_t offset);
/// Writes the whole span.
void writeAt(const Descriptor& file, std::span<const std::byte> from, std::uint64_t offset);

void syncFile(const Descriptor& file, const std::string& path);
/// Makes the names in the directory durable.
void syncDirectory(const std::string& path);
/// Removes a file; one that is not there is fine.
void removeFile(const std::string& path);

} // namespace tolvubd
