#include "Mounting.h"

#include "common/PosixError.h"

#include <algorithm>
#include <array>
#include <blkid/blkid.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <string_view>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace restore::view {

namespace {

using std::chrono::seconds;

constexpr seconds mountTimeout(300); // enough to replay the journal of a remote image
constexpr std::chrono::milliseconds mountedPause(10);
/// Keeps the content of an image from granting rights on this machine.
constexpr const char* safeMountOptions = "ro,nosuid,nodev";

/// A way to mount a kind of file system: by the kernel, or by a driver that is a program.
struct MountMethod {
    const char* kind;    ///< libblkid's name
    const char* type;    ///< the kernel's name of the kind, or the program
    const char* options; ///< in addition to `safeMountOptions`
    bool isProgram;
};

/// The best method for each kind comes first.
constexpr std::array methods{
    MountMethod{"ext4", "ext4", "", false},
    MountMethod{"ext3", "ext3", "", false},
    MountMethod{"ext2", "ext2", "", false},
    MountMethod{"xfs", "xfs", "nouuid", false},
    MountMethod{"vfat", "vfat", "utf8", false},
    MountMethod{"vfat", "fusefat", "", true},
    MountMethod{"ntfs", "ntfs-3g", "permissions,streams_interface=xattr", true},
    MountMethod{"ntfs", "ntfs3", "", false},
    MountMethod{"hfsplus", "hfsplus", "", false},
};

struct Remedy {
    std::string_view kind;
    const char* text;
};
constexpr std::array remedies{
    Remedy{"vfat", "boot a kernel that has vfat, or install fusefat"},
    Remedy{"ntfs", "install ntfs-3g"},
};

std::string remedyFor(const std::string& kind) {
    const auto* const found = std::ranges::find(remedies, kind, &Remedy::kind);
    return found != remedies.end()
               ? found->text
               : "boot a kernel that has it, such as that of the package linux-image-amd64";
}

std::string joined(std::initializer_list<std::string> options) {
    std::string all;
    for (const std::string& option : options) {
        all += (all.empty() || option.empty() ? "" : ",") + option;
    }
    return all;
}

/// Whether the output of mount(8) says that the kernel doesn't support the file system, rather than what is
/// wrong with it.
bool isUnknown(const std::string& words) {
    return words.find("unknown filesystem type") != std::string::npos ||
           words.find("not supported by kernel") != std::string::npos;
}

void requireMounted(const Outcome& outcome, const std::string& what) {
    if (outcome.status != 0) {
        throw std::runtime_error(what + " can't be mounted: " + lastOutputLine(outcome.output));
    }
}

/// Uses the first method for this kind that the machine supports; `take` returns false if it doesn't support
/// a method. Throws NoDriver if it supports none of them.
void mountByAny(const std::string& kind, const std::function<bool(const MountMethod&)>& take) {
    bool isKnown = false;
    for (const MountMethod& method : methods) {
        if (kind != method.kind) {
            continue;
        }
        isKnown = true;
        try {
            if (take(method)) {
                return;
            }
        } catch (const ProgramMissing&) { // NOLINT(bugprone-empty-catch): the next method
        }
    }
    throw NoDriver(isKnown ? "nothing on this machine mounts " + kind + ": " + remedyFor(kind)
                           : "no way is known to mount " + kind);
}

/// Returns false if the kernel doesn't support the file system.
bool mountByKernel(const MountMethod& method, const std::string& options, const std::string& device,
                   const std::string& directory) {
    const Outcome outcome = runProgram(
        {.command = {"mount", "-i", "-t", method.type, "-o", options, device, directory}}, mountTimeout);
    if (outcome.status != 0 && isUnknown(outcome.output)) {
        return false;
    }
    requireMounted(outcome, device);
    return true;
}

bool isMountedAt(const std::string& path, dev_t before) {
    struct ::stat now{};
    return ::stat(path.c_str(), &now) == 0 && now.st_dev != before;
}

std::string lastOutputLineIn(const std::string& path) {
    std::ifstream file(path);
    return lastOutputLine({std::istreambuf_iterator<char>(file), {}});
}

/// Starts a driver in the foreground, as a child that ends with this process. It has mounted the file system
/// when `seenAt` is on another device. Its output goes to the log.
Program startDriver(Start start, const std::string& seenAt, const std::string& log) {
    struct ::stat before{};
    if (::stat(seenAt.c_str(), &before) != 0) {
        throw agent::PosixError(seenAt + " can't be seen", errno);
    }
    const os::FileDescriptor output(::open(log.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    start.endsWithParent = true;
    start.isDetached = true;
    start.output = output.get();
    Program driver(start);
    const auto deadline = std::chrono::steady_clock::now() + mountTimeout;
    while (!isMountedAt(seenAt, before.st_dev)) {
        if (driver.status() || std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error(start.command.front() + " can't mount it: " + lastOutputLineIn(log));
        }
        std::this_thread::sleep_for(mountedPause);
    }
    return driver;
}

/// The content of a device, according to libblkid.
class Probe {
public:
    explicit Probe(const std::string& device)
        : probe(::blkid_new_probe_from_filename(device.c_str()), ::blkid_free_probe) {
        if (!probe) {
            throw agent::PosixError(device + " can't be read", errno);
        }
        ::blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_UUID);
        isFound = ::blkid_do_safeprobe(probe.get()) == 0;
    }

    /// Empty if there is no such value.
    [[nodiscard]] std::string value(const char* name) const {
        const char* text = nullptr;
        const bool isThere =
            isFound && ::blkid_probe_lookup_value(probe.get(), name, &text, nullptr) == 0 && text != nullptr;
        return isThere ? text : "";
    }

private:
    std::unique_ptr<blkid_struct_probe, void (*)(blkid_probe)> probe;
    bool isFound = false;
};

std::vector<std::string> foreground(const MountMethod& method, const std::string& options,
                                    const std::string& device, const std::string& directory) {
    if (std::string_view(method.type) == "ntfs-3g") {
        return {method.type, "-o", joined({options, "no_detach"}), device, directory};
    }
    return {method.type, "-f", "-o", options, device, directory};
}

} // namespace

std::string findKind(const std::string& device) {
    std::string kind = Probe(device).value("TYPE");
    if (kind.empty()) {
        throw std::runtime_error("no file system is found in it");
    }
    return kind;
}

std::string uuidOf(const std::string& device) {
    return Probe(device).value("UUID");
}

void mountForAll(const ImageView& view, const std::string& kind, const std::string& directory) {
    mountByAny(kind, [&](const MountMethod& method) {
        const std::string options = joined({safeMountOptions, method.options});
        if (!method.isProgram) {
            return mountByKernel(method, options, view.device(), directory);
        }
        requireMounted(
            runProgram({.command = {method.type, "-o", options, view.device(), directory}}, mountTimeout),
            view.device());
        return true;
    });
}

void replayJournal(const std::string& kind, const std::string& device, const std::string& directory) {
    mountByAny(kind, [&](const MountMethod& method) {
        if (method.isProgram ||
            !mountByKernel(method, joined({"rw,nosuid,nodev", method.options}), device, directory)) {
            return false;
        }
        requireMounted(runProgram({.command = {"umount", directory}}, mountTimeout), device);
        return true;
    });
}

void enterPrivateMountNamespace() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
        throw agent::PosixError("no mounts of our own can be had", errno);
    }
}

PrivateMount::PrivateMount(const ImageView& view, const std::string& kind) {
    const std::string directory = view.directory().path("root");
    mountByAny(kind, [&](const MountMethod& method) {
        const std::string options = joined({safeMountOptions, method.options});
        if (!method.isProgram) {
            kernelMountPoint = directory;
            return mountByKernel(method, options, view.device(), directory);
        }
        // Mounts in the server's mount namespace. When the mount ends, the kernel has to notify the
        // driver. In that namespace the driver is still alive then; in ours it would be ending with our last
        // process.
        Start start;
        start.command = foreground(method, options, view.file(), directory);
        start.mountNamespaceOf = view.server();
        const std::string seen = "/proc/" + std::to_string(view.server()) + "/root" + directory;
        driver.emplace(startDriver(start, seen, view.directory().path("log")));
        kernelMountPoint.clear();
        openTop(seen);
        return true;
    });
    if (!kernelMountPoint.empty()) {
        openTop(kernelMountPoint);
    }
}

PrivateMount::~PrivateMount() {
    top.reset();
    if (!kernelMountPoint.empty() && ::umount2(kernelMountPoint.c_str(), 0) != 0) {
        ::umount2(kernelMountPoint.c_str(), MNT_DETACH); // still in use: unmounted when its last user ends
    }
}

void PrivateMount::openTop(const std::string& path) {
    top = os::FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!top) {
        throw agent::PosixError("the top of the file system can't be opened", errno);
    }
}

} // namespace restore::view
