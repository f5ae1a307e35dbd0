#include "mapper/ChangeRecord.h"

#include "CowFile.h"

#include <algorithm>

namespace tolvubd {

namespace {

constexpr std::uint64_t unitSectors = 8;
/// How many words of the table are written at once: one block of the file system.
constexpr std::size_t wordsAtOnce = 512;

} // namespace

std::vector<bool> changedUnits(const std::vector<bool>& written, std::uint32_t blockSectors,
                               const std::vector<Extent>& fresh, std::uint64_t volumeSize) {
    std::vector<bool> changed(cow::unitsOf(volumeSize));
    const std::uint64_t unitsInBlock = blockSectors / unitSectors;
    for (std::uint64_t unit = 0; unit < changed.size(); ++unit) {
        const std::uint64_t block = unit / unitsInBlock;
        changed[unit] = block >= written.size() || written[block];
    }
    for (const Extent& extent : fresh) {
        const std::uint64_t end = std::min<std::uint64_t>(changed.size(), cow::unitsOf(extent.end()));
        for (std::uint64_t unit = extent.offset / cow::unitSize; unit < end; ++unit) {
            changed[unit] = true;
        }
    }
    return changed;
}

/// A new CoW file's table is all zeros. Blocks of zeros aren't written, because that would fill the store of
/// the snapshot that has just been taken.
void writeRecord(const std::string& cowFile, const std::string& snapshot, const std::vector<bool>& changed,
                 std::uint64_t volumeSize) {
    CowTable table(cowFile, snapshot, volumeSize);
    std::vector<std::uint64_t> words;
    words.reserve(wordsAtOnce);
    std::uint64_t count = 0;
    for (std::uint64_t first = 0; first < changed.size(); first += wordsAtOnce) {
        const std::uint64_t end = std::min<std::uint64_t>(first + wordsAtOnce, changed.size());
        words.assign(changed.begin() + static_cast<std::ptrdiff_t>(first),
                     changed.begin() + static_cast<std::ptrdiff_t>(end));
        if (const auto marks = std::ranges::count(words, 1U); marks != 0) {
            table.write(first, words);
            count += static_cast<std::uint64_t>(marks);
        }
    }
    table.finish(count);
}

} // namespace tolvubd
