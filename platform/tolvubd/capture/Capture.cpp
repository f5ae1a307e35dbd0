#include "capture/Capture.h"

#include "AtomicFile.h"
#include "Failure.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <unistd.h>

namespace tolvubd {

namespace {

/// Large, because the file system stays frozen for as long as the reads take.
constexpr std::size_t pieceSize = std::size_t{8} << 20;
/// The alignment for direct I/O that every device accepts.
constexpr std::size_t largestSector = 4096;
/// The granularity of holes; no file system has larger blocks.
constexpr std::size_t holeSize = std::size_t{64} << 10;

bool isZero(std::span<const std::byte> bytes) {
    return bytes.empty() ||
           (bytes[0] == std::byte{0} && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

/// Writes the parts that aren't zero, in runs as long as possible.
void writeSparse(const os::FileDescriptor& image, std::span<const std::byte> piece, std::uint64_t offset) {
    std::size_t begin = 0;
    for (std::size_t at = 0; at < piece.size(); at += holeSize) {
        const std::size_t length = std::min(holeSize, piece.size() - at);
        if (isZero(piece.subspan(at, length))) {
            writeAt(image, piece.subspan(begin, at - begin), offset + begin);
            begin = at + length;
        }
    }
    writeAt(image, piece.subspan(begin), offset + begin);
}

} // namespace

Capture::Capture(const std::string& path, const std::string& device, std::uint64_t size)
    : path(path),
      size(size),
      image(openFile(path, O_WRONLY | O_CREAT | O_EXCL, ownerOnly)),
      source(openFile(device, O_RDONLY | O_DIRECT)),
      buffer(pieceSize, largestSector) {
    checked(::ftruncate(image.get(), static_cast<off_t>(size)), "make " + path);
}

void Capture::copy(const std::function<void()>& afterPiece) {
    for (std::uint64_t offset = 0; offset < size; offset += pieceSize) {
        const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(pieceSize, size - offset));
        const std::span<std::byte> piece(buffer.data(), length);
        if (readAt(source, piece, offset) != length) {
            fail(EIO, "the device is shorter than it was");
        }
        writeSparse(image, piece, offset);
        afterPiece();
    }
}

void Capture::finish() {
    syncFile(image, path);
    syncDirectory(directoryOf(path));
}

} // namespace tolvubd
