#pragma once

#include "FileAccess.h"
#include "seal/Fingerprint.h"
#include "support/LoopFileSystem.h"
#include "support/TestDirectory.h"

#include <cstdint>
#include <fcntl.h>
#include <optional>
#include <string>

namespace tolvubd::test {

/// A real file system in an image, for shell commands in which $i is the image and $r a directory:
///
///     m OPTIONS     mounts it; the loop device stays writable whatever the options are, as a disk does
///     u             unmounts it
///     stop          simulates a crash: the image stays as it is at that moment
///     keep, back    saves a copy of the image, and restores it
class FileSystemImage {
public:
    static constexpr std::uint64_t size = std::uint64_t{320} << 20;

    explicit FileSystemImage(const std::string& make) {
        run("mkdir $r; truncate -s 320M $i; " + make + " $i; m rw; echo first > $r/first; u");
    }

    /// Runs the commands. Fails unless all of them succeed.
    std::string run(const std::string& commands) const {
        const std::string script = directory / "script";
        const std::string root = directory / "root";
        agent::test::writeFile(script,
                               "set -e\ni=" + image + " r=" + root + "\n" + functions + commands + "\n");
        return agent::test::outputOf("sh " + script + " 2>&1");
    }

    [[nodiscard]] std::optional<Fingerprint> fingerprint() const {
        return readFingerprint(openFile(image, O_RDONLY), size);
    }

    [[nodiscard]] const std::string& path() const { return image; }

private:
    static constexpr const char* functions =
        "m() { l=$(losetup -f --show $i); mount -o $1 $l $r || { losetup -d $l; false; }; losetup -d $l; }\n"
        "u() { umount $r; }\n"
        "stop() { cp --sparse=always $i $i.stopped; u; mv $i.stopped $i; }\n"
        "keep() { cp --sparse=always $i $i.kept; }\n"
        "back() { cp --sparse=always $i.kept $i; }\n";

    agent::test::TestDirectory directory;
    std::string image = directory / "image";
};

} // namespace tolvubd::test
