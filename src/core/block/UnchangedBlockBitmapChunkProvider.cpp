#include "core/block/UnchangedBlockBitmapChunkProvider.h"

#include "common/PosixError.h"
#include "info/CowFormat.h"
#include "os/FileDescriptor.h"
#include "os/SparseFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <span>
#include <unistd.h>
#include <utility>

namespace agent::core::block {

namespace {

constexpr std::uint64_t wordBytes = info::cow::entrySize;

bool seekTo(int descriptor, std::uint64_t position) {
    return position <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) &&
           ::lseek(descriptor, static_cast<off_t>(position), SEEK_SET) >= 0;
}

} // namespace

class UnchangedBlockBitmapChunkProvider::Impl {
public:
    Impl(info::Logger& logger, IncrementalBitmapInfo bitmapInfo)
        : logger(logger), bitmapInfo(std::move(bitmapInfo)) {}

    std::int64_t getBitmapChunk(std::uint64_t startElement, std::uint8_t* buffer,
                                std::size_t bufferBytes) const {
        // If the file has been replaced by a pipe, the open must not block; a link isn't the driver's file.
        const os::FileDescriptor file(
            ::open(bitmapInfo.fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
        if (!file) {
            info::LogEntry(logger, info::level::error, info::reason("changes-unreadable"))
                << "Open incremental bitmap file " << bitmapInfo.fileName
                << " failed: " << PosixError::describe(errno);
            return -1;
        }
        const std::uint64_t position = positionOf(startElement);
        if (!seekTo(file.get(), position)) {
            info::LogEntry(logger, info::level::error, info::reason("changes-unreadable"))
                << "Could not seek to " << position << " in incremental bitmap.";
            return 0;
        }
        const std::uint64_t left =
            bitmapInfo.bitmapEntries - std::min(startElement, bitmapInfo.bitmapEntries);
        const std::uint64_t request = std::min<std::uint64_t>(left, bufferBytes / wordBytes);
        return wordsRead(
            request,
            os::readSkippingHoleAt(file.get(), std::as_writable_bytes(std::span(buffer, request * wordBytes)),
                                   position));
    }

private:
    /// The byte position of an element in the file; on overflow the largest number, which can't be seeked to.
    [[nodiscard]] std::uint64_t positionOf(std::uint64_t element) const {
        std::uint64_t position = 0;
        const bool overflows = __builtin_mul_overflow(element, wordBytes, &position) ||
                               __builtin_add_overflow(position, bitmapInfo.bitmapOffset, &position);
        return overflows ? std::numeric_limits<std::uint64_t>::max() : position;
    }

    [[nodiscard]] std::int64_t wordsRead(std::uint64_t request, const os::Transfer& reading) const {
        if (reading.error != 0 && reading.bytes == 0) {
            info::LogEntry(logger, info::level::error, info::reason("changes-unreadable"))
                << "Failed to read incremental bitmap: " << PosixError::describe(reading.error);
            return -1;
        }
        const std::uint64_t words = reading.bytes / wordBytes;
        if (words < request) {
            info::LogEntry(logger, info::level::info)
                << "Incremental bitmap read request: " << request << ", Data read: " << words;
            info::LogEntry(logger, info::level::debug)
                << "Reached EOF? : " << (reading.error == 0 ? "true" : "false");
        }
        return static_cast<std::int64_t>(words);
    }

    info::Logger& logger;
    IncrementalBitmapInfo bitmapInfo;
};

UnchangedBlockBitmapChunkProvider::UnchangedBlockBitmapChunkProvider(info::Logger& logger,
                                                                     IncrementalBitmapInfo bitmapInfo)
    : impl(std::make_unique<const Impl>(logger, std::move(bitmapInfo))) {}

UnchangedBlockBitmapChunkProvider::~UnchangedBlockBitmapChunkProvider() = default;

std::int64_t UnchangedBlockBitmapChunkProvider::getBitmapChunk(std::uint64_t startElement,
                                                               std::uint8_t* buffer,
                                                               std::size_t bufferBytes) {
    return impl->getBitmapChunk(startElement, buffer, bufferBytes);
}

} // namespace agent::core::block
