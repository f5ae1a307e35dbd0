#include "LoopDevice.h"

#include "common/PosixError.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/loop.h>
#include <span>
#include <stdexcept>
#include <sys/ioctl.h>

namespace restore::view {

namespace {

constexpr int attempts = 100; // others take loop devices at the same time

void setLabel(::loop_info64& info, const std::string& label) {
    const std::span<unsigned char> place(info.lo_file_name);
    if (label.size() >= place.size()) {
        throw std::logic_error("the label of a loop device is too long");
    }
    std::memcpy(place.data(), label.data(), label.size());
}

} // namespace

LoopDevice::LoopDevice(int file, const std::string& label) {
    const os::FileDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control) {
        throw agent::PosixError("this kernel has no loop devices: modprobe loop", errno);
    }
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            throw agent::PosixError("no loop device is free", errno);
        }
        if (attach(number, file, label)) {
            return;
        }
    }
    throw std::runtime_error("no loop device could be had: others took each one first");
}

bool LoopDevice::attach(int number, int file, const std::string& label) {
    node = "/dev/loop" + std::to_string(number);
    device = os::FileDescriptor(::open(node.c_str(), O_RDWR | O_CLOEXEC));
    if (!device) {
        throw agent::PosixError(node + " can't be opened", errno);
    }
    ::loop_config config{};
    config.fd = static_cast<unsigned>(file);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    setLabel(config.info, label);
    if (::ioctl(device.get(), LOOP_CONFIGURE, &config) == 0) {
        return true;
    }
    if (errno != EBUSY) {
        throw agent::PosixError(node + " can't show the image", errno);
    }
    return false;
}

bool isLoopDevice(const std::string& path, const std::string& label) {
    const os::FileDescriptor device(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    ::loop_info64 info{};
    if (!device || ::ioctl(device.get(), LOOP_GET_STATUS64, &info) != 0) {
        return false;
    }
    ::loop_info64 expected{};
    setLabel(expected, label);
    return std::memcmp(static_cast<const unsigned char*>(info.lo_file_name),
                       static_cast<const unsigned char*>(expected.lo_file_name),
                       sizeof(info.lo_file_name)) == 0;
}

} // namespace restore::view
