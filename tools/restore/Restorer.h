#pragma once

#include "IImage.h"
#include "Pieces.h"
#include "RestorePlan.h"
#include "TargetDevice.h"
#include "core/backup/phase/WriteBehind.h"
#include "os/AlignedBuffer.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace restore {

/// Restores a volume from its image to a device.
///
/// The first MiB is written last. Until then it holds a marker, so no system takes a half restored device for
/// a file system, and a later run resumes where this one has ended, whatever the reason.
/// Owns:    a thread that writes while the caller's thread reads, and buffers of 8 MiB.
/// Threads: one at a time.
/// Fails:   throws std::runtime_error. The next run doesn't copy again what is on the disk by then.
class Restorer {
public:
    enum class Phase { copying, comparing };
    /// Called now and then with the bytes done and the total; it may throw to end the run.
    using Progress = std::function<void(Phase phase, std::uint64_t done, std::uint64_t all)>;

    struct Result {
        std::uint64_t copied = 0; ///< bytes that came from the image in this run
        std::uint64_t zeros =
            0; ///< bytes of them that were zeros, which take no space if the device supports holes
        std::uint64_t resumed = 0;   ///< bytes that an earlier run had written
        std::uint64_t compared = 0;  ///< bytes that were read back
        std::uint64_t rewritten = 0; ///< bytes of an earlier run that differed from the image
    };

    Restorer(IImage& image, const RestorePlan& plan, TargetDevice& target, Progress progress);

    /// `from` is the marker of an interrupted run to resume; it must fit the plan.
    Result copy(const std::optional<Marker>& from);
    /// Reads back what was copied, before finish() makes the volume visible. The data of an earlier run is
    /// compared with the image, and copied again if it differs. Throws std::runtime_error for the first piece
    /// that doesn't read as written.
    void compare(Result& result);
    /// Writes the first MiB. The volume is complete from here on.
    void finish();

private:
    using Chunk = agent::core::backup::phase::Chunk;
    using WriteBehind = agent::core::backup::phase::WriteBehind;

    struct Stretch {
        ByteRange range;
        bool isHole = false; ///< zeros, enough of them for a hole
    };

    /// A piece that was read and is to be written.
    struct PieceBuffer {
        os::AlignedBuffer memory;
        std::uint64_t begin = 0; ///< byte of the volume that the memory begins with
        std::vector<Stretch> stretches;
    };

    void begin();
    /// `copiedUntil` is the end of what has been handed to the writing thread.
    void copyPieces(std::uint64_t& copiedUntil, WriteBehind& behind, Result& result);
    void writeMarkerAfterFailure(std::uint64_t position, WriteBehind& behind) noexcept;
    /// Nothing between `copiedUntil` and the piece is in use.
    void copyPiece(const Piece& piece, std::uint64_t copiedUntil, WriteBehind& behind);
    std::span<const std::byte> readPiece(PieceBuffer& pieceBuffer, const Piece& piece);
    void write(const PieceBuffer& pieceBuffer);
    static void addStretches(PieceBuffer& pieceBuffer, ByteRange part);
    void discard(std::uint64_t begin, std::uint64_t end);
    void compareEarlier(const Piece& piece, Result& result);
    /// Whether the piece on the device has this checksum.
    bool matches(const Piece& piece, std::uint32_t checksum);
    void requireEqual(const Piece& piece, bool isEqual, Result& result);
    void writeMarker(std::uint64_t position);
    void writeMarkerIfDue(std::uint64_t position, WriteBehind& behind);

    IImage& image;
    const RestorePlan& plan;
    TargetDevice& target;
    Progress progress;
    Marker marker;
    std::array<PieceBuffer, 2> pieceBuffers;
    os::AlignedBuffer markerPage{Marker::pageBytes, Marker::pageBytes};
    std::size_t next = 0;                 // index into `pieceBuffers`
    std::vector<std::uint32_t> checksums; // of the pieces of this run, in order
    std::uint64_t firstOfThisRun = 0;     // byte of the volume
    std::uint64_t zerosWritten = 0;       // by the writing thread; read only after it has settled
    std::chrono::steady_clock::time_point lastMarkerTime;
};

} // namespace restore
