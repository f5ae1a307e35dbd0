#pragma once

#include <cstdint>
#include <string>

namespace zephane {

/// A new image: a sparse file of zeros.
/// Owns:    the file, until it is kept: one that isn't is removed with the object.
/// Threads: one.
/// Fails:   the constructor throws ConfigError, if anything has that name already too.
class ImageFile {
public:
    /// The file is for the user alone to whom `ownerOf` belongs. `size` is in bytes.
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
