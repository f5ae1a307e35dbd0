#pragma once

#include "IImage.h"
#include "os/FileDescriptor.h"

#include <string>

namespace restore {

/// An image in a file, or on a block device of this machine, read past the page cache where the file system
/// lets us.
class FileImage : public IImage {
public:
    /// `offset` is where the image begins, in bytes. Throws std::runtime_error if it can't be opened for
    /// reading, is neither a file nor a block device, or ends before it begins.
    FileImage(std::string path, std::uint64_t offset);

    [[nodiscard]] std::uint64_t size() const override { return bytes; }
    void read(std::span<std::byte> into, std::uint64_t offset) override;
    [[nodiscard]] std::string name() const override { return path; }

private:
    std::string path;
    std::uint64_t begin;
    os::FileDescriptor file;
    std::uint64_t bytes = 0;
};

} // namespace restore
