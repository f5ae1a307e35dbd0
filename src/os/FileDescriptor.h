#pragma once

namespace os {

/// Owns one open file descriptor, or none (-1).
/// Owns:    the descriptor; the destructor closes it.
/// Threads: one thread at a time.
/// Fails:   never; closing preserves `errno`, so that an error can be reported after the owner is destroyed.
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    explicit FileDescriptor(int descriptor) noexcept : descriptor(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept : descriptor(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    [[nodiscard]] int get() const noexcept { return descriptor; }
    explicit operator bool() const noexcept { return descriptor >= 0; }

    /// Closes the descriptor, if there is one.
    void reset() noexcept;
    /// Gives the descriptor up without closing it.
    int release() noexcept;

private:
    int descriptor = -1;
};

} // namespace os
