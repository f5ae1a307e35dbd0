#pragma once

#include "tools/restore/IImage.h"

#include <string>

namespace restore::check {

/// Another image, of which is kept why it couldn't be read, whatever becomes of the failure: who reads the
/// maps of a file system tells only that they can't be read.
class WatchedImage : public IImage {
public:
    /// The image must outlive this.
    explicit WatchedImage(IImage& image) : image(image) {}

    [[nodiscard]] std::uint64_t size() const override { return image.size(); }
    void read(std::span<std::byte> into, std::uint64_t offset) override;
    [[nodiscard]] std::string name() const override { return image.name(); }
    /// Empty if all could be read.
    [[nodiscard]] const std::string& failure() const { return firstFailure; }

private:
    IImage& image;
    std::string firstFailure;
};

} // namespace restore::check
