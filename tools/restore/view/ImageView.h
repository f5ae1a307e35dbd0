#pragma once

#include "LoopDevice.h"
#include "Program.h"
#include "ViewDirectory.h"
#include "tools/restore/ImageAddress.h"
#include "tools/restore/Secret.h"

#include <optional>
#include <string>

namespace restore::view {

/// An image as a block device of this machine, which may be written to: what is written goes to an overlay in
/// TMPDIR or /var/tmp, and is thrown away with the view. The image is never written. nbdkit serves it, with a
/// plugin of ours that reads images, and nbdfuse makes a file of that for a loop device.
/// Owns:    the processes, the device and the place of the view, unless it was left.
/// Threads: one at a time, and the first to make one; that thread has to outlive it.
/// Fails:   by std::runtime_error. Nothing is left after that, and no more than clearRemains() removes if
///          this process is killed.
class ImageView {
public:
    enum class Lifetime { ours, beyondUs };

    ImageView(const ImageAddress& address, const SecretSource& secret, Lifetime lifetime);
    ImageView(const ImageView&) = delete;
    ImageView& operator=(const ImageView&) = delete;
    ImageView(ImageView&&) = delete;
    ImageView& operator=(ImageView&&) = delete;
    ~ImageView() = default;

    /// The block device.
    [[nodiscard]] const std::string& device() const { return loop->path(); }
    [[nodiscard]] const ViewDirectory& directory() const { return place; }
    /// nbdfuse, in whose mount namespace `file()` is the image.
    [[nodiscard]] pid_t server() const { return served->pid(); }
    [[nodiscard]] std::string file() const { return place.path(fileName); }
    /// Writes down where it is going to be mounted, for who unmounts it.
    void setMountPoint(const std::string& path);
    /// Lets all of it go on when this object is gone, by what is mounted from the device.
    void leave();

private:
    static constexpr const char* fileName = "view/image";

    void serve(const SecretSource& secret, Lifetime lifetime);
    void awaitServer();
    [[nodiscard]] std::string wordsOfServer() const;

    ImageAddress address;
    ViewDirectory place;
    ViewState state;
    std::optional<Program> served;
    std::optional<LoopDevice> loop;
};

} // namespace restore::view
