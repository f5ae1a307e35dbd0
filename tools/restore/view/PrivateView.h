#pragma once

#include "ImageView.h"
#include "Mounting.h"

#include <string>

namespace restore::view {

/// An image that is looked into by this process alone, and gone with it.
class PrivateView {
public:
    /// Throws std::runtime_error.
    PrivateView(const ImageAddress& address, const SecretSource& secret);

    /// What is at this path of the volume, without following a last link; O_PATH and what else is asked for.
    /// No link leads out of the volume: "/" is its own top. Throws std::runtime_error if there is nothing.
    [[nodiscard]] os::FileDescriptor open(const std::string& path, int flags) const;
    [[nodiscard]] const std::string& kind() const { return fileSystem; }
    [[nodiscard]] int root() const { return mount.root(); }

private:
    ImageView view;
    std::string fileSystem;
    PrivateMount mount;
};

/// See PrivateView::open, of any top.
os::FileDescriptor openInside(int root, const std::string& path, int flags);

} // namespace restore::view
