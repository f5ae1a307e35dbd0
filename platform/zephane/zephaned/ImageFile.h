#pragma once

#include <cstdint>
#include <string>

namespace zephane {

/// A new image: a sparse file of zeros.
/// Owns:    the file, until `keep` is called; otherwise the destructor removes the file.
/// Threads: one at a time.
/// Fails:   the constructor throws ConfigError, also if the path exists already.
class ImageFile {
public:
    /// Only the owner of `ownerOf` may read and write the new file. `size` is in bytes.
    ImageFile(const std::string& path, std::uint64_t size, const std::string& ownerOf);
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;
    ~ImageFile();

    void keep() noexcept { isKept = true; }

private:
    const std::string location;
    bool isKept = false;
};

} // namespace zephane
