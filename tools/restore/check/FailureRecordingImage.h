#pragma once

#include "tools/restore/IImage.h"

#include <string>

namespace restore::check {

/// Wraps another image and keeps the reason of the first failed read: the code that reads the maps of a file
/// system reports only that they can't be read.
class FailureRecordingImage : public IImage {
public:
    /// `image` must outlive this object.
    explicit FailureRecordingImage(IImage& image) : image(image) {}

    [[nodiscard]] std::uint64_t size() const override { return image.size(); }
    void read(std::span<std::byte> into, std::uint64_t offset) override;
    [[nodiscard]] std::string name() const override { return image.name(); }
    /// The reason of the first failed read; empty if there was none.
    [[nodiscard]] const std::string& failure() const { return firstFailure; }

private:
    IImage& image;
    std::string firstFailure;
};

} // namespace restore::check
