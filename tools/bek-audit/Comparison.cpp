#include "Comparison.h"

#include "os/AlignedBuffer.h"
#include "os/Mutex.h"
#include "tools/restore/Pieces.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <future>

namespace audit {

namespace {

using restore::ByteRange;
using restore::pageBytes;
using restore::Piece;

std::vector<Piece> piecesOf(const std::vector<std::uint64_t>& pages) {
    std::vector<ByteRange> ranges;
    for (const std::uint64_t page : pages) {
        if (!ranges.empty() && ranges.back().end() == page * pageBytes) {
            ranges.back().length += pageBytes;
        } else {
            ranges.push_back({page * pageBytes, pageBytes});
        }
    }
    std::vector<Piece> pieces;
    restore::forEachPiece(ranges, 0, ~std::uint64_t{0}, [&](const Piece& piece) { pieces.push_back(piece); });
    return pieces;
}

/// The work that all threads share. Each thread takes the next piece when it has finished one.
class Work {
public:
    Work(std::vector<Piece> pieces, const Interrupt& interrupt,
         const std::function<void(std::uint64_t done)>& progress)
        : pieces(std::move(pieces)), interrupt(interrupt), progress(progress) {}

    void run(const ReaderPair& pair) {
        os::AlignedBuffer one(restore::largestPiece, pageBytes);
        os::AlignedBuffer other(restore::largestPiece, pageBytes);
        try {
            while (const Piece* const piece = next()) {
                interrupt.check();
                pair.snapshot->read({one.data(), piece->whole.length}, piece->whole.begin);
                pair.image->read({other.data(), piece->whole.length}, piece->whole.begin);
                note(*piece, one.data(), other.data());
            }
        } catch (...) {
            const os::Lock lock(mutex);
            position = pieces.size(); // the other threads can stop
            throw;
        }
    }

    std::vector<std::uint64_t> differing() {
        const os::Lock lock(mutex);
        std::ranges::sort(found);
        return std::move(found);
    }

private:
    const Piece* next() {
        const os::Lock lock(mutex);
        return position < pieces.size() ? &pieces[position++] : nullptr;
    }

    void note(const Piece& piece, const std::byte* one, const std::byte* other) {
        std::vector<std::uint64_t> different;
        for (const ByteRange& part : piece.parts) {
            for (std::uint64_t at = part.begin; at < part.end(); at += pageBytes) {
                const std::uint64_t into = at - piece.whole.begin;
                if (std::memcmp(one + into, other + into, pageBytes) != 0) {
                    different.push_back(at / pageBytes);
                }
            }
        }
        const os::Lock lock(mutex);
        found.insert(found.end(), different.begin(), different.end());
        done += piece.used() / pageBytes;
        progress(done);
    }

    const std::vector<Piece> pieces;
    const Interrupt& interrupt;
    const std::function<void(std::uint64_t done)>& progress;
    os::Mutex mutex;
    std::size_t position GUARDED_BY(mutex) = 0;         // index of the next piece
    std::uint64_t done GUARDED_BY(mutex) = 0;           // pages
    std::vector<std::uint64_t> found GUARDED_BY(mutex); // pages
};

} // namespace

std::vector<std::uint64_t> findDiffering(const std::vector<ReaderPair>& readers,
                                         const std::vector<std::uint64_t>& pages, const Interrupt& interrupt,
                                         const std::function<void(std::uint64_t done)>& progress) {
    Work work(piecesOf(pages), interrupt, progress);
    std::vector<std::future<void>> running;
    running.reserve(readers.size());
    for (const ReaderPair& pair : readers) {
        running.push_back(std::async(std::launch::async, [&work, &pair] { work.run(pair); }));
    }
    std::exception_ptr failure;
    for (std::future<void>& each : running) {
        try {
            each.get();
        } catch (...) {
            failure = failure ? failure : std::current_exception();
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    return work.differing();
}

} // namespace audit
