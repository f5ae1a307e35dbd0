#pragma once

#include "LoopDevice.h"
#include "Program.h"
#include "ViewDirectory.h"
#include "tools/restore/ImageAddress.h"
#include "tools/restore/Secret.h"

#include <optional>
#include <string>

namespace restore::view {

/// An image as a block device of this machine. The device can be written to: writes go to an overlay in
/// TMPDIR or /var/tmp, which is discarded with the view. The image is never written. nbdkit serves it, with
/// our own plugin that reads images, and nbdfuse makes that a file for a loop device.
/// Owns:    the processes, the device and the directory of the view, unless detach() was called.
/// Threads: one at a time. The main thread constructs it, as that thread has to outlive it.
/// Fails:   throws std::runtime_error, and leaves nothing behind. If this process is killed,
///          removeStaleViews() removes what is left.
class ImageView {
public:
    enum class Lifetime { endsWithProcess, outlivesProcess };

    ImageView(const ImageAddress& address, const SecretSource& secret, Lifetime lifetime);
    ImageView(const ImageView&) = delete;
    ImageView& operator=(const ImageView&) = delete;
    ImageView(ImageView&&) = delete;
    ImageView& operator=(ImageView&&) = delete;
    ~ImageView() = default;

    /// The path of the block device.
    [[nodiscard]] const std::string& device() const { return loop->path(); }
    [[nodiscard]] const ViewDirectory& directory() const { return place; }
    /// The process ID of nbdfuse; in its mount namespace, `file()` is the image.
    [[nodiscard]] pid_t server() const { return served->pid(); }
    [[nodiscard]] std::string file() const { return place.path(fileName); }
    /// Records where the view is going to be mounted, for the command that unmounts it.
    void setMountPoint(const std::string& path);
    /// Lets the view live on after this object, for the file system that is mounted from the device.
    void detach();

private:
    static constexpr const char* fileName = "view/image";

    void serve(const SecretSource& secret, Lifetime lifetime);
    void awaitServer();
    [[nodiscard]] std::string serverError() const;

    ImageAddress address;
    ViewDirectory place;
    ViewState state;
    std::optional<Program> served;
    std::optional<LoopDevice> loop;
};

} // namespace restore::view
