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

/// Brings a volume from its image to a device.
///
/// The first MiB comes last. Until then a marker stands there, so a device that holds half of a volume is no
/// file system to anybody, and a later run goes on where this one has ended: by whatever it was ended.
/// Owns:    a thread that writes while the caller's reads, and buffers of 8 MiB.
/// Threads: one at a time.
/// Fails:   std::runtime_error. What is on the disk by then is not copied again by the next run.
class Restorer {
public:
    enum class Phase { copying, comparing };
    /// Called now and then with the bytes that are done and all that there are; it may throw to end the run.
    using Progress = std::function<void(Phase phase, std::uint64_t done, std::uint64_t all)>;

    struct Result {
        std::uint64_t copied = 0; ///< bytes that came from the image in this run
        std::uint64_t zeros =
            0; ///< bytes of them that were zeros, and take no room where the device can do that
        std::uint64_t resumed = 0;  ///< bytes that an earlier run had brought
        std::uint64_t compared = 0; ///< bytes that were read back
        std::uint64_t mended = 0;   ///< bytes of an earlier run that were no longer those of the image
    };

    Restorer(IImage& image, const RestorePlan& plan, TargetDevice& target, Progress progress);

    /// `from` is the marker of an interrupted run to go on from; it must fit the plan.
    Result copy(const std::optional<Marker>& from);
    /// Reads back what was copied, before the first MiB tells anybody that it is there. What an earlier run
    /// has brought is compared with the image, and copied once more where they differ. Throws
    /// std::runtime_error for the first piece that isn't what was written.
    void compare(Result& result);
    /// The volume is whole from here on.
    void finish();

private:
    using Chunk = agent::core::backup::phase::Chunk;
    using WriteBehind = agent::core::backup::phase::WriteBehind;

    struct Stretch {
        ByteRange range;
        bool isHole = false; ///< zeros, so many that they are worth one
    };

    /// What was read, until it is written.
    struct Load {
        os::AlignedBuffer buffer;
        std::uint64_t begin = 0; ///< byte of the volume at which the buffer begins
        std::vector<Stretch> stretches;
    };

    void begin();
    /// `unused` is behind what has been begun to be written.
    void copyPieces(std::uint64_t& unused, WriteBehind& behind, Result& result);
    void keepWhatIsThere(std::uint64_t position, WriteBehind& behind) noexcept;
    /// `unused`: from there to the piece there is nothing in use.
    void copyPiece(const Piece& piece, std::uint64_t unused, WriteBehind& behind);
    std::span<const std::byte> readPiece(Load& load, const Piece& piece);
    void write(const Load& load);
    static void addStretches(Load& load, ByteRange part);
    void discard(std::uint64_t begin, std::uint64_t end);
    void compareEarlier(const Piece& piece, Result& result);
    /// Whether the device holds what has this checksum.
    bool holds(const Piece& piece, std::uint32_t checksum);
    void settle(const Piece& piece, bool isEqual, Result& result);
    void keepPosition(std::uint64_t position);
    void keepPositionNowAndThen(std::uint64_t position, WriteBehind& behind);

    IImage& image;
    const RestorePlan& plan;
    TargetDevice& target;
    Progress progress;
    Marker marker;
    std::array<Load, 2> loads;
    os::AlignedBuffer markerPage{Marker::pageBytes, Marker::pageBytes};
    std::size_t next = 0;                 // of the loads
    std::vector<std::uint32_t> checksums; // of the pieces of this run, in their order
    std::uint64_t firstOfThisRun = 0;     // byte of the volume
    std::uint64_t zerosWritten = 0;       // by the thread that writes; read once that has settled
    std::chrono::steady_clock::time_point lastKept;
};

} // namespace restore
