#include "capture/CaptureNode.h"

#include "AtomicFile.h"
#include "Failure.h"
#include "FileAccess.h"
#include "HiddenNode.h"
#include "Layout.h"
#include "NumberAfter.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <linux/loop.h>
#include <linux/major.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <system_error>

namespace tolvubd {

namespace {

namespace fs = std::filesystem;

constexpr int attempts = 100;

loop_config configuration(const os::FileDescriptor& image, const std::string& capture,
                          std::uint32_t sectorSize) {
    loop_config config{};
    config.fd = static_cast<std::uint32_t>(image.get());
    config.block_size = sectorSize;
    config.info.lo_flags = LO_FLAGS_READ_ONLY;
    std::copy_n(capture.begin(), std::min<std::size_t>(capture.size(), LO_NAME_SIZE - 1),
                std::begin(config.info.lo_file_name));
    return config;
}

/// Returns false when another process has taken the loop device: LOOP_CTL_GET_FREE doesn't reserve it.
bool tryToShow(const os::FileDescriptor& control, const loop_config& config, const std::string& node) {
    const int loop = checked(::ioctl(control.get(), LOOP_CTL_GET_FREE), "find a free loop device");
    const HiddenNode hidden(makedev(LOOP_MAJOR, static_cast<unsigned>(loop)));
    const os::FileDescriptor device = hidden.open(O_RDONLY);
    if (::ioctl(device.get(), LOOP_CONFIGURE, &config) != 0) {
        if (errno == EBUSY) {
            return false;
        }
        failWithErrno("attach a loop device");
    }
    hidden.rename(node);
    return true;
}

/// The file name of the image that a loop device shows, according to the kernel. The directory depends on the
/// caller's root and mounts, but the name doesn't, and it is unique among captures.
std::string backingName(const fs::path& loop) {
    constexpr std::size_t longest = 4096;
    try {
        const std::string path = readFile(loop / "loop/backing_file", longest);
        return fs::path(path.substr(0, path.find('\n'))).filename();
    } catch (const std::system_error& error) {
        if (error.code().value() != ENOENT && error.code().value() != ENODEV) {
            throw;
        }
        return {}; // it is unbound, or has just gone
    }
}

void detach(unsigned loop) {
    const HiddenNode hidden(makedev(LOOP_MAJOR, loop));
    if (::ioctl(hidden.open(O_RDONLY).get(), LOOP_CLR_FD) != 0 && errno != ENXIO) {
        failWithErrno("detach loop device " + std::to_string(loop));
    }
}

} // namespace

void showCapture(const std::string& capture, std::uint32_t sectorSize, std::uint32_t minor) {
    const os::FileDescriptor control = openFile("/dev/loop-control", O_RDWR);
    const os::FileDescriptor image = openFile(capture, O_RDONLY);
    const loop_config config = configuration(image, capture, sectorSize);
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (tryToShow(control, config, layout::node(minor))) {
            return;
        }
    }
    fail(EBUSY, "find a free loop device");
}

void detachCapture(const std::string& capture) {
    const std::string wanted = fs::path(capture).filename();
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/block")) {
        const auto loop = numberAfter("loop", entry.path().filename());
        if (loop && backingName(entry.path()) == wanted) {
            detach(*loop);
        }
    }
}

} // namespace tolvubd
