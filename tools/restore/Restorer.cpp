#include "Restorer.h"

#include "os/Crc32c.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

namespace restore {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t headBytes = RestorePlan::headBytes;
/// Shorter runs of zeros are written like data: holes so small are of no use.
constexpr std::uint64_t leastZeros = 64UL << 10U;
constexpr std::chrono::seconds markerInterval(5);

bool isZero(std::span<const std::byte> bytes) {
    return bytes.empty() || (bytes.front() == std::byte{0} &&
                             std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

/// The length of the first stretch of `bytes`, and whether it is a hole: a run of zeros that is worth one.
std::pair<std::uint64_t, bool> stretchOf(std::span<const std::byte> bytes) {
    const auto zeroPages = [&](std::uint64_t from) {
        std::uint64_t end = from;
        while (end < bytes.size() && isZero(bytes.subspan(end, std::min(pageBytes, bytes.size() - end)))) {
            end += pageBytes;
        }
        return std::min<std::uint64_t>(end, bytes.size()) - from;
    };
    if (const std::uint64_t zeros = zeroPages(0); zeros >= leastZeros) {
        return {zeros, true};
    }
    for (std::uint64_t at = 0; at < bytes.size();) {
        const std::uint64_t zeros = zeroPages(at);
        if (zeros >= leastZeros) {
            return {at, false};
        }
        at += std::max(zeros, pageBytes);
    }
    return {bytes.size(), false};
}

} // namespace

Restorer::Restorer(IImage& image, const RestorePlan& plan, TargetDevice& target, Progress progress)
    : image(image),
      plan(plan),
      target(target),
      progress(std::move(progress)),
      marker{0, headBytes, plan.volumeBytes, plan.identity} {
    for (PieceBuffer& pieceBuffer : pieceBuffers) {
        pieceBuffer.memory = os::AlignedBuffer(largestPiece, pageBytes);
    }
}

/// If the copy fails, the position reached is written to the marker, so that the next run resumes there.
Restorer::Result Restorer::copy(const std::optional<Marker>& from) {
    target.extendTo(plan.volumeBytes);
    if (from) {
        marker = *from;
    } else {
        begin();
    }
    firstOfThisRun = marker.position;
    lastMarkerTime = Clock::now();
    Result result;
    result.resumed = bytesBetween(plan.used, headBytes, firstOfThisRun);
    WriteBehind behind([this](const Chunk& chunk) {
        write(chunk.bytes == pieceBuffers.front().memory.data() ? pieceBuffers.front() : pieceBuffers.back());
    });
    std::uint64_t copiedUntil = firstOfThisRun;
    try {
        copyPieces(copiedUntil, behind, result);
    } catch (...) {
        writeMarkerAfterFailure(copiedUntil, behind);
        throw;
    }
    behind.waitOrThrow();
    discard(copiedUntil, plan.volumeBytes);
    writeMarker(plan.volumeBytes);
    result.zeros = zerosWritten;
    return result;
}

void Restorer::copyPieces(std::uint64_t& copiedUntil, WriteBehind& behind, Result& result) {
    forEachPiece(plan.used, firstOfThisRun, plan.volumeBytes, [&](const Piece& piece) {
        copyPiece(piece, copiedUntil, behind);
        copiedUntil = piece.whole.end();
        result.copied += piece.used();
        writeMarkerIfDue(copiedUntil, behind);
        progress(Phase::copying, result.resumed + result.copied, plan.usedBytes);
    });
}

/// If the device itself has failed, the marker that was written last stays in effect.
void Restorer::writeMarkerAfterFailure(std::uint64_t position, WriteBehind& behind) noexcept {
    try {
        behind.waitOrThrow();
        writeMarker(position);
    } catch (const std::exception&) { // the caller reports the first failure
    }
}

/// From here on the device holds no file system, until the restore is complete.
void Restorer::begin() {
    target.zero({0, headBytes});
    writeMarker(headBytes);
}

void Restorer::copyPiece(const Piece& piece, std::uint64_t copiedUntil, WriteBehind& behind) {
    PieceBuffer& pieceBuffer = pieceBuffers.at(next);
    next = 1 - next;
    checksums.push_back(os::crc32c(readPiece(pieceBuffer, piece)));
    behind.begin(
        {static_cast<std::int64_t>(piece.whole.begin), pieceBuffer.memory.data(), piece.whole.length});
    discard(copiedUntil, piece.whole.begin);
}

std::span<const std::byte> Restorer::readPiece(PieceBuffer& pieceBuffer, const Piece& piece) {
    const std::span bytes(pieceBuffer.memory.data(), piece.whole.length);
    image.read(bytes, piece.whole.begin);
    piece.clearGaps(bytes.data());
    pieceBuffer.begin = piece.whole.begin;
    pieceBuffer.stretches.clear();
    for (const ByteRange& part : piece.parts) {
        addStretches(pieceBuffer, part);
    }
    return bytes;
}

/// Runs in the reading thread, so that the other one does nothing but write.
void Restorer::addStretches(PieceBuffer& pieceBuffer, ByteRange part) {
    while (part.length > 0) {
        const auto [length, isHole] =
            stretchOf({pieceBuffer.memory.data() + (part.begin - pieceBuffer.begin), part.length});
        pieceBuffer.stretches.push_back({{part.begin, length}, isHole});
        part = {part.begin + length, part.length - length};
    }
}

void Restorer::write(const PieceBuffer& pieceBuffer) {
    for (const Stretch& stretch : pieceBuffer.stretches) {
        if (stretch.isHole) {
            target.zero(stretch.range);
            zerosWritten += stretch.range.length;
        } else {
            target.write(
                {pieceBuffer.memory.data() + (stretch.range.begin - pieceBuffer.begin), stretch.range.length},
                stretch.range.begin);
        }
    }
}

void Restorer::discard(std::uint64_t begin, std::uint64_t end) {
    if (begin < end) {
        target.discard({begin, end - begin});
    }
}

/// All data before `position` must be on the disk before the marker is.
void Restorer::writeMarker(std::uint64_t position) {
    target.sync();
    ++marker.sequence;
    marker.position = position;
    const auto page = marker.bytes();
    std::ranges::copy(page, markerPage.data());
    target.write({markerPage.data(), page.size()}, marker.place());
    target.sync();
    lastMarkerTime = Clock::now();
}

void Restorer::writeMarkerIfDue(std::uint64_t position, WriteBehind& behind) {
    if (Clock::now() - lastMarkerTime >= markerInterval) {
        behind.waitOrThrow();
        writeMarker(position);
    }
}

void Restorer::compare(Result& result) {
    forEachPiece(plan.used, headBytes, firstOfThisRun,
                 [&](const Piece& piece) { compareEarlier(piece, result); });
    auto checksum = checksums.begin();
    forEachPiece(plan.used, firstOfThisRun, plan.volumeBytes,
                 [&](const Piece& piece) { requireEqual(piece, matches(piece, *checksum++), result); });
}

/// The image may have changed since the earlier run, and the device may have lost data.
void Restorer::compareEarlier(const Piece& piece, Result& result) {
    const std::uint32_t checksum = os::crc32c(readPiece(pieceBuffers.front(), piece));
    bool isEqual = matches(piece, checksum);
    if (!isEqual) {
        write(pieceBuffers.front());
        target.sync();
        result.rewritten += piece.used();
        isEqual = matches(piece, checksum);
    }
    requireEqual(piece, isEqual, result);
}

bool Restorer::matches(const Piece& piece, std::uint32_t checksum) {
    const std::span bytes(pieceBuffers.back().memory.data(), piece.whole.length);
    target.read(bytes, piece.whole.begin);
    piece.clearGaps(bytes.data());
    return os::crc32c(bytes) == checksum;
}

void Restorer::requireEqual(const Piece& piece, bool isEqual, Result& result) {
    if (!isEqual) {
        throw std::runtime_error("what was written to " + target.path() + " behind byte " +
                                 std::to_string(piece.whole.begin) +
                                 " reads otherwise: the device is faulty");
    }
    result.compared += piece.used();
    progress(Phase::comparing, result.compared, plan.usedBytes);
}

/// The first page is written last, and the marker stays in it until then: the page holds the superblock of
/// every kind of file system, which makes a volume look whole.
void Restorer::finish() {
    if (marker.place() != 0) {
        writeMarker(marker.position);
    }
    const std::span head(pieceBuffers.front().memory.data(), headBytes);
    image.read(head, 0);
    target.write(head.subspan(Marker::pageBytes), Marker::pageBytes);
    target.sync();
    target.write(head.first(Marker::pageBytes), 0);
    target.sync();
}

} // namespace restore
