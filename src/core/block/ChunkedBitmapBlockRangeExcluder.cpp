#include "core/block/ChunkedBitmapBlockRangeExcluder.h"

#include "core/fs/LoggedBuffer.h"

namespace agent::core::block {

ChunkedBitmapBlockRangeExcluder::ChunkedBitmapBlockRangeExcluder(
    info::Logger& logger, std::shared_ptr<const info::BackupableVolume> volume,
    std::unique_ptr<fs::IBlockBitmapChunkProvider> chunkProvider, const BitRangeFinderFactory& finderFactory,
    int finderType)
    : logger(logger),
      volume(std::move(volume)),
      chunkProvider(std::move(chunkProvider)),
      rangeFinder(
          finderFactory.createRangeFinder(finderType, false, this->chunkProvider->isBitmapMsbFirst())),
      bitsPerElement(finderType == BitRangeFinderFactory::wordFinder ? 64 : 1) {}

BlockRangeIterator ChunkedBitmapBlockRangeExcluder::begin() const {
    return handleOf(iterator(*this));
}

BlockRangeIterator ChunkedBitmapBlockRangeExcluder::end() const {
    return handleOf(iterator(*this, std::default_sentinel));
}

/// Whether an element lies past the volume's end. False if the volume's size isn't known.
bool ChunkedBitmapBlockRangeExcluder::isPastVolume(std::uint64_t element) const {
    const std::uint64_t blocks = volume->getBlockCount();
    return blocks != 0 && toBlockRange({}, element).start >= blocks;
}

ChunkedBitmapBlockRangeExcluder::iterator::iterator(const ChunkedBitmapBlockRangeExcluder& excluder)
    : RangeIterator(excluder), moreToFetch(true), chunk(*excluder.rangeFinder, excluder.bitsPerElement) {
    fetchRanges();
}

ChunkedBitmapBlockRangeExcluder::iterator::iterator(const ChunkedBitmapBlockRangeExcluder& excluder,
                                                    std::default_sentinel_t /*end*/)
    : RangeIterator(excluder), moreToFetch(false), chunk(*excluder.rangeFinder, excluder.bitsPerElement) {}

void ChunkedBitmapBlockRangeExcluder::iterator::advance() {
    if (!chunk.atEnd()) {
        chunk.next();
    }
    fetchRanges();
}

/// Fetches chunks until one has a range, or the map ends.
void ChunkedBitmapBlockRangeExcluder::iterator::fetchRanges() {
    while (chunk.atEnd() && moreToFetch) {
        info::LogEntry(provider->logger, info::level::debug)
            << provider->name() << ": Advanced to the last cached range - fetching more...";
        fetch();
    }
    if (!chunk.atEnd()) {
        current = provider->toBlockRange(chunk.current(), chunkStart);
    }
}

void ChunkedBitmapBlockRangeExcluder::iterator::fetch() {
    prepareBuffer();
    const std::int64_t fetched =
        provider->chunkProvider->getBitmapChunk(nextElement, chunk.data(), chunk.size());
    if (!isUsable(fetched)) {
        moreToFetch = false;
        return;
    }
    info::LogEntry(provider->logger, info::level::debug)
        << provider->name() << " got a bitmap chunk to find ranges in next " << fetched
        << " blocks starting at block " << nextElement;
    const auto elements = static_cast<std::uint64_t>(fetched);
    chunkStart = nextElement;
    nextElement += elements;
    chunk.search(elements);
}

void ChunkedBitmapBlockRangeExcluder::iterator::prepareBuffer() {
    if (!chunk.hasBuffer()) {
        chunk.setBuffer(fs::createLoggedBuffer(provider->bitmapBufferSize(),
                                               provider->volume->getSectorSize(), provider->logger));
    }
}

/// Whether a fetch has delivered elements. The map ends with an empty fetch, with a failure, or past the
/// volume's end, so that an endless map isn't fetched forever. A count that exceeds the buffer is a failure,
/// too.
bool ChunkedBitmapBlockRangeExcluder::iterator::isUsable(std::int64_t fetched) const {
    return fetched > 0 && static_cast<std::uint64_t>(fetched) <= chunk.capacity() &&
           !provider->isPastVolume(nextElement);
}

} // namespace agent::core::block
