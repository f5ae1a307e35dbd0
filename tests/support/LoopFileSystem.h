#pragma once

#include "core/script/UnixCommandStream.h"
#include "support/TestDirectory.h"

#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>

namespace agent::test {

/// The output of a shell command. Throws std::runtime_error with the output if the command fails.
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

/// A real kernel file system on an image file in memory, mounted while the object lives. The loop device is
/// detached with the unmount, at the latest when the test's mount namespace ends.
/// Owns:    the image, the mount and its loop device.
/// Threads: one.
/// Fails:   the constructor throws std::runtime_error if a command fails. A failed unmount is ignored.
class LoopFileSystem {
public:
    /// `make` is the command that makes the file system; the path of the image is appended to it.
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

    /// Reads bytes of the image file.
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
