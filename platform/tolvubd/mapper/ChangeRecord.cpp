#include "mapper/ChangeRecord.h"

#include "CowFile.h"

#include <algorithm>

namespace tolvubd {

namespace {

constexpr std::uint64_t unitSectors = 8;
/// Words of the table that are written at once: a MiB.
constexpr std::size_t wordsAtOnce = std::size_t{1} << 17;

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

void writeRecord(const std::string& cowFile, const std::string& snapshot, const std::vector<bool>& changed,
                 std::uint64_t volumeSize) {
    CowTable table(cowFile, snapshot, volumeSize);
    std::vector<std::uint64_t> words;
    words.reserve(wordsAtOnce);
    std::uint64_t count = 0;
    for (std::uint64_t unit = 0; unit < changed.size(); ++unit) {
        words.push_back(changed[unit] ? 1 : 0);
        count += changed[unit] ? 1 : 0;
        if (words.size() == wordsAtOnce || unit + 1 == changed.size()) {
            table.write(unit + 1 - words.size(), words);
            words.clear();
        }
    }
    table.finish(count);
}

} // namespace tolvubd
