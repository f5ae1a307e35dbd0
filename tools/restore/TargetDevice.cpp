#include "TargetDevice.h"

#include "DirectIo.h"
#include "common/PosixError.h"
#include "os/AlignedBuffer.h"

#include <algorithm>
#include <array>
#include <blkid/blkid.h>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <linux/fs.h>
#include <memory>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace restore {

namespace {

struct FreeProbe {
    void operator()(blkid_struct_probe* probe) const noexcept { ::blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<blkid_struct_probe, FreeProbe>;

struct ::stat statusOf(const std::string& path) {
    struct ::stat status{};
    if (::stat(path.c_str(), &status) != 0) {
        throw agent::PosixError(path + " can't be written to", errno);
    }
    return status;
}

/// The kernel refuses O_EXCL if the device is mounted, used as swap, or part of another device.
os::FileDescriptor openExclusively(const std::string& path, bool isFile, bool mayWrite) {
    const int usual = (mayWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC | (isFile ? 0 : O_EXCL);
    os::FileDescriptor device(::open(path.c_str(), usual | O_DIRECT));
    if (!device && errno == EINVAL) {
        device = os::FileDescriptor(::open(path.c_str(), usual));
    }
    if (!device && errno == EBUSY) {
        throw std::runtime_error(path +
                                 " is in use: it is mounted, swapped to, or part of a volume group or a "
                                 "RAID. Unmount or detach it; lsblk " +
                                 path + " shows by what it is held");
    }
    if (!device) {
        throw agent::PosixError(path + " can't be opened for writing", errno);
    }
    return device;
}

/// After a failed call: whether it makes sense to try again.
bool canGoOn(const os::FileDescriptor& device) {
    return errno == EINTR || (errno == EINVAL && disableDirectIo(device));
}

std::uint64_t sizeOfDevice(const os::FileDescriptor& device, const std::string& path) {
    std::uint64_t bytes = 0;
    if (::ioctl(device.get(), BLKGETSIZE64, &bytes) != 0) {
        throw agent::PosixError("the size of " + path + " can't be told", errno);
    }
    return bytes;
}

std::string valueOf(blkid_probe probe, const char* key) {
    const char* value = nullptr;
    return ::blkid_probe_lookup_value(probe, key, &value, nullptr) == 0 && value != nullptr ? value : "";
}

std::string described(blkid_probe probe) {
    const std::string type = valueOf(probe, "TYPE");
    if (type.empty()) {
        const std::string table = valueOf(probe, "PTTYPE");
        return table.empty() ? "" : "a table of partitions (" + table + ")";
    }
    const std::string label = valueOf(probe, "LABEL");
    return type + (label.empty() ? "" : " with the label \"" + label + "\"");
}

/// Describes the result of libblkid's search.
std::string found(blkid_probe probe, int result, const std::string& device) {
    constexpr int something = 0;
    constexpr int nothing = 1;
    constexpr int severalThings = -2;
    switch (result) {
    case something:
        return described(probe);
    case nothing:
        return "";
    case severalThings:
        return "more than one file system";
    default:
        throw std::runtime_error("what is on " + device + " can't be read");
    }
}

} // namespace

TargetDevice::TargetDevice(std::string path, bool mayWrite) : name(std::move(path)) {
    const struct ::stat status = statusOf(name);
    file = S_ISREG(status.st_mode);
    if (!file && !S_ISBLK(status.st_mode)) {
        throw std::runtime_error(name + " is neither a block device nor a file");
    }
    device = openExclusively(name, file, mayWrite);
    bytes =
        file ? static_cast<std::uint64_t>(std::numeric_limits<::off_t>::max()) : sizeOfDevice(device, name);
}

std::string TargetDevice::content() const {
    // libblkid's reads aren't aligned as direct I/O needs it.
    const os::FileDescriptor probed(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    struct ::stat status{};
    if (probed && ::fstat(probed.get(), &status) == 0 && file && status.st_size == 0) {
        return "";
    }
    const Probe probe(::blkid_new_probe());
    if (!probed || !probe || ::blkid_probe_set_device(probe.get(), probed.get(), 0, 0) != 0) {
        throw std::runtime_error("what is on " + name + " can't be told");
    }
    ::blkid_probe_enable_superblocks(probe.get(), 1);
    ::blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL);
    ::blkid_probe_enable_partitions(probe.get(), 1);
    return found(probe.get(), ::blkid_do_safeprobe(probe.get()), name);
}

std::optional<Marker> TargetDevice::marker() const {
    os::AlignedBuffer area(Marker::areaBytes, pageBytes);
    const ::ssize_t got = ::pread(device.get(), area.data(), area.size(), 0);
    if (got != static_cast<::ssize_t>(area.size())) {
        return std::nullopt;
    }
    return Marker::find(std::span<const std::byte, Marker::areaBytes>(area.data(), area.size()));
}

void TargetDevice::read(std::span<std::byte> into, std::uint64_t offset) const {
    while (!into.empty()) {
        const ::ssize_t got = ::pread(device.get(), into.data(), into.size(), static_cast<::off_t>(offset));
        if (got <= 0 && !(got < 0 && canGoOn(device))) {
            throw agent::PosixError("reading " + name + " at byte " + std::to_string(offset) + " failed",
                                    got == 0 ? EIO : errno);
        }
        const auto count = static_cast<std::size_t>(std::max<::ssize_t>(got, 0));
        into = into.subspan(count);
        offset += count;
    }
}

void TargetDevice::write(std::span<const std::byte> from, std::uint64_t offset) {
    while (!from.empty()) {
        const ::ssize_t put = ::pwrite(device.get(), from.data(), from.size(), static_cast<::off_t>(offset));
        if (put <= 0 && !(put < 0 && canGoOn(device))) {
            throw agent::PosixError("writing " + name + " at byte " + std::to_string(offset) + " failed",
                                    put == 0 ? ENOSPC : errno);
        }
        const auto count = static_cast<std::size_t>(std::max<::ssize_t>(put, 0));
        from = from.subspan(count);
        offset += count;
    }
}

void TargetDevice::zero(const ByteRange& range) {
    const auto offset = static_cast<::off_t>(range.begin);
    const auto length = static_cast<::off_t>(range.length);
    if (::fallocate(device.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, length) == 0 ||
        ::fallocate(device.get(), FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE, offset, length) == 0) {
        return;
    }
    constexpr std::size_t most = 1UL << 20U;
    const os::AlignedBuffer zeros(most, pageBytes);
    for (std::uint64_t done = 0; done < range.length; done += most) {
        write({zeros.data(), std::min<std::uint64_t>(most, range.length - done)}, range.begin + done);
    }
}

void TargetDevice::discard(const ByteRange& range) {
    if (!canDiscard) {
        return;
    }
    if (file) {
        zero(range);
        return;
    }
    const std::array<std::uint64_t, 2> what{range.begin, range.length};
    canDiscard = ::ioctl(device.get(), BLKDISCARD, what.data()) == 0;
}

void TargetDevice::extendTo(std::uint64_t size) {
    struct ::stat status{};
    const bool isShorter =
        file && ::fstat(device.get(), &status) == 0 && static_cast<std::uint64_t>(status.st_size) < size;
    if (isShorter && ::ftruncate(device.get(), static_cast<::off_t>(size)) != 0) {
        throw agent::PosixError("making " + name + " as long as the volume failed", errno);
    }
}

void TargetDevice::sync() {
    if (::fsync(device.get()) != 0) {
        throw agent::PosixError("bringing " + name + " to its disk failed", errno);
    }
}

} // namespace restore
