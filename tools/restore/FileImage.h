#pragma once

#include "IImage.h"
#include "os/FileDescriptor.h"

#include <string>

namespace restore {

/// An image in a file or on a block device of this machine, read by direct I/O where the file system supports
/// it.
class FileImage : public IImage {
public:
    /// The image begins at the byte `offset`. Throws std::runtime_error if the path can't be opened for
    /// reading, is neither a file nor a block device, or ends before `offset`.
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
