#include "capture/SnapshotNode.h"

#include "AtomicFile.h"
#include "Failure.h"
#include "FileAccess.h"
#include "Layout.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <linux/loop.h>
#include <linux/major.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>

namespace tolvubd {

namespace {

namespace fs = std::filesystem;

constexpr unsigned ownerOnly = 0600;
constexpr int attempts = 100;

/// The path is out of sight of whoever looks for snapshots. A node of our own, because /dev need not have one
/// for a loop device that has just come into being.
std::string hiddenNode(unsigned loop) {
    return std::string(layout::devices) + "/" + layout::hiddenNodePrefix + "-loop" + std::to_string(loop);
}

/// The node is there as long as the object, unless it has been renamed.
class HiddenNode {
public:
    explicit HiddenNode(unsigned loop) : path(hiddenNode(loop)) {
        removeFile(path);
        checked(::mknod(path.c_str(), S_IFBLK | ownerOnly, makedev(LOOP_MAJOR, loop)), "make " + path);
    }
    HiddenNode(const HiddenNode&) = delete;
    HiddenNode& operator=(const HiddenNode&) = delete;
    ~HiddenNode() {
        std::error_code ignored;
        fs::remove(path, ignored);
    }

    [[nodiscard]] os::FileDescriptor open() const { return openFile(path, O_RDONLY); }
    void rename(const std::string& to) const {
        checked(::rename(path.c_str(), to.c_str()), "rename to " + to);
    }

private:
    std::string path;
};

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

/// False when somebody else has been faster: the free device isn't reserved for who has asked for it.
bool tryToShow(const os::FileDescriptor& control, const loop_config& config, const std::string& node) {
    const int loop = checked(::ioctl(control.get(), LOOP_CTL_GET_FREE), "find a free loop device");
    const HiddenNode hidden(static_cast<unsigned>(loop));
    const os::FileDescriptor device = hidden.open();
    if (::ioctl(device.get(), LOOP_CONFIGURE, &config) != 0) {
        if (errno == EBUSY) {
            return false;
        }
        failWithErrno("attach a loop device");
    }
    hidden.rename(node);
    return true;
}

std::optional<unsigned> numberAfter(const std::string& prefix, const std::string& name) {
    unsigned number = 0;
    const char* end = name.data() + name.size();
    if (!name.starts_with(prefix)) {
        return std::nullopt;
    }
    const auto parsed = std::from_chars(name.data() + prefix.size(), end, number);
    const bool whole = parsed.ec == std::errc() && parsed.ptr == end;
    return whole ? std::optional(number) : std::nullopt;
}

/// What the kernel says a loop device shows. The directory depends on who looks from where, the name doesn't,
/// and no two captures share one.
std::string backingName(const fs::path& loop) {
    constexpr std::size_t longest = 4096;
    try {
        const std::string path = readFile(loop / "loop/backing_file", longest);
        return fs::path(path.substr(0, path.find('\n'))).filename();
    } catch (const std::system_error& error) {
        if (error.code().value() != ENOENT && error.code().value() != ENODEV) {
            throw;
        }
        return {}; // it shows nothing, or has just gone
    }
}

void detach(unsigned loop) {
    const HiddenNode hidden(loop);
    if (::ioctl(hidden.open().get(), LOOP_CLR_FD) != 0 && errno != ENXIO) {
        failWithErrno("detach loop device " + std::to_string(loop));
    }
}

bool isBlockDevice(const fs::directory_entry& entry) {
    std::error_code ignored;
    return fs::is_block_file(entry.symlink_status(ignored));
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

void requireUnused(std::uint32_t minor) {
    const os::FileDescriptor device(::open(layout::node(minor).c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    if (!device && errno == EBUSY) {
        failWithErrno(layout::node(minor));
    }
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

void removeNodesExcept(const std::set<std::uint32_t>& minors) {
    for (const fs::directory_entry& entry : fs::directory_iterator(layout::devices)) {
        const std::string name = entry.path().filename();
        const auto minor = numberAfter(layout::nodePrefix, name);
        const bool isOurs = minor || name.starts_with(layout::hiddenNodePrefix);
        if (isOurs && isBlockDevice(entry) && !(minor && minors.contains(*minor))) {
            removeFile(entry.path());
        }
    }
}

} // namespace tolvubd
