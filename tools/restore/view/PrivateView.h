#pragma once

#include "ImageView.h"
#include "Mounting.h"

#include <string>

namespace restore::view {

/// The files of an image, visible to this process only and gone with it. The constructor moves the process to
/// a mount namespace of its own.
/// Owns:    the view of the image, and its mount.
/// Threads: one at a time. The main thread constructs it, as that thread has to outlive it.
/// Fails:   throws std::runtime_error.
class PrivateView {
public:
    PrivateView(const ImageAddress& address, const SecretSource& secret);

    /// Opens a path of the volume, without following a symbolic link at its end; `flags` may be O_PATH and
    /// others. No link leads out of the volume: "/" is its own root. Throws std::runtime_error if the path
    /// can't be opened.
    [[nodiscard]] os::FileDescriptor open(const std::string& path, int flags) const;
    [[nodiscard]] const std::string& kind() const { return fileSystem; }
    [[nodiscard]] int root() const { return mount.root(); }

private:
    ImageView view;
    std::string fileSystem;
    PrivateMount mount;
};

/// Like PrivateView::open, below any root directory.
os::FileDescriptor openInside(int root, const std::string& path, int flags);

} // namespace restore::view
