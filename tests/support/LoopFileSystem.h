#pragma once

#include "core/script/UnixCommandStream.h"
#include "support/TestDirectory.h"

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>

namespace agent::test {

/// What a shell command prints. A command that fails is an exception with its output.
inline std::string outputOf(const std::string& command) {
    core::script::UnixCommandStream stream(command, "", true);
    std::string output;
    std::string part;
    while (stream.readAvailable(part)) {
        output += part;
    }
    if (stream.wait() != 0) {
        throw std::runtime_error(command + ": " + output);
    }
    return output;
}

/// A file system of the kernel's own, in an image in memory that is mounted while the object lives. The loop
/// device goes with the mount, and that at the latest with the test's namespace.
class LoopFileSystem {
public:
    /// `make` is the command that makes the file system in the image whose path is put behind it.
    explicit LoopFileSystem(const std::string& make) : image(directory / "image"), root(directory / "root") {
        dir::make(root);
        outputOf("truncate -s 320M " + image);
        outputOf(make + " " + image);
        outputOf("mount -o loop " + image + " " + root);
    }
    LoopFileSystem(const LoopFileSystem&) = delete;
    LoopFileSystem& operator=(const LoopFileSystem&) = delete;
    ~LoopFileSystem() {
        try {
            outputOf("umount " + root);
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the namespace ends it
        }
    }

    [[nodiscard]] std::string path(const std::string& name) const { return root + "/" + name; }

    /// Bytes of the image, as they are once all has been written to it.
    [[nodiscard]] std::string read(std::uint64_t offset, std::size_t length) const {
        std::ifstream file(image, std::ios::binary);
        std::string bytes(length, '\0');
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(bytes.data(), static_cast<std::streamsize>(length));
        return bytes;
    }

private:
    TestDirectory directory;
    std::string image;
    std::string root;
};

} // namespace agent::test
