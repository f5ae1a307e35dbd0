#include "ImageDevice.h"

#include "info/log/LogLevel.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>

namespace restore {

namespace {

constexpr std::size_t windowAlignment = 4096;
constexpr std::size_t windowSize = 256UL * 1024;

} // namespace

ImageDevice::ImageDevice(agent::info::Logger& logger, IImage& image)
    : logger(logger), image(image), window(windowSize, windowAlignment) {}

std::int64_t ImageDevice::read(void* buffer, std::size_t length) {
    try {
        auto* into = static_cast<std::byte*>(buffer);
        std::size_t done = 0;
        while (done < length) {
            const std::span<const std::byte> there = windowAt(position);
            const std::size_t count = std::min(there.size(), length - done);
            if (count == 0) {
                break;
            }
            std::memcpy(into + done, there.data(), count);
            done += count;
            position += count;
        }
        return static_cast<std::int64_t>(done);
    } catch (const std::exception& error) {
        logger.log(agent::info::level::error, "%s", error.what());
        windowBytes = 0;
        errno = EIO;
        return -1;
    }
}

std::int64_t ImageDevice::seek(std::int64_t offset, int whence) {
    std::int64_t base = 0;
    if (whence == SEEK_CUR) {
        base = static_cast<std::int64_t>(position);
    } else if (whence == SEEK_END) {
        base = static_cast<std::int64_t>(image.size());
    }
    std::int64_t sum = 0;
    if (__builtin_add_overflow(base, offset, &sum) || sum < 0) {
        errno = EINVAL;
        return -1;
    }
    position = static_cast<std::uint64_t>(sum);
    return sum;
}

std::span<const std::byte> ImageDevice::windowAt(std::uint64_t place) {
    if (place >= image.size()) {
        return {};
    }
    if (windowBytes == 0 || place < windowBegin || place >= windowBegin + windowBytes) {
        windowBytes = 0;
        windowBegin = place / windowSize * windowSize;
        const std::size_t count = std::min<std::uint64_t>(windowSize, image.size() - windowBegin);
        image.read({window.data(), count}, windowBegin);
        windowBytes = count;
    }
    return std::span<const std::byte>(window.data(), windowBytes).subspan(place - windowBegin);
}

} // namespace restore
