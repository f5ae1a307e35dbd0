#include "capture/Compare.h"

#include "CowFile.h"
#include "Failure.h"
#include "FileAccess.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace tolvubd {

namespace {

constexpr std::uint64_t unitsAtOnce = 1024;
constexpr std::uint64_t bytesAtOnce = unitsAtOnce * cow::unitSize;

class Image {
public:
    Image(const std::string& path, std::uint64_t size)
        : path(path), size(size), file(openFile(path, O_RDONLY)), buffer(bytesAtOnce) {
        struct stat status{};
        checked(::fstat(file.get(), &status), "look at " + path);
        if (static_cast<std::uint64_t>(status.st_size) != size) {
            fail(ESTALE, path + " has another size");
        }
    }

    /// Whether the file has only a hole from `offset` on, for `length` bytes.
    [[nodiscard]] bool isHole(std::uint64_t offset, std::uint64_t length) {
        if (offset >= nextData || nextData == unknown) {
            nextData = findData(offset);
        }
        return nextData >= offset + length;
    }

    std::span<const std::byte> read(std::uint64_t offset, std::size_t length) {
        const std::span<std::byte> into = std::span(buffer).first(length);
        if (readAt(file, into, offset) != length) {
            fail(EIO, path + " is shorter than it was");
        }
        return into;
    }

private:
    static constexpr std::uint64_t unknown = ~std::uint64_t{0};

    std::uint64_t findData(std::uint64_t offset) {
        const off_t found = ::lseek(file.get(), static_cast<off_t>(offset), SEEK_DATA);
        if (found < 0 && errno != ENXIO) {
            failWithErrno("find the data of " + path);
        }
        return found < 0 ? size : static_cast<std::uint64_t>(found);
    }

    std::string path;
    std::uint64_t size;
    os::FileDescriptor file;
    std::vector<std::byte> buffer;
    std::uint64_t nextData = unknown;
};

/// Sets each word to whether its unit differs. The last unit may be shorter than the others.
void markDiffering(std::span<const std::byte> before, std::span<const std::byte> after,
                   std::span<std::uint64_t> words) {
    for (std::size_t unit = 0; unit < words.size(); ++unit) {
        const std::size_t offset = unit * cow::unitSize;
        const std::size_t length = std::min<std::size_t>(cow::unitSize, before.size() - offset);
        const bool differs = std::memcmp(before.data() + offset, after.data() + offset, length) != 0;
        words[unit] = differs ? 1 : 0;
    }
}

/// Marks the fresh units as well. Returns how many units are marked now.
std::uint64_t markFresh(const std::vector<bool>& fresh, std::uint64_t firstUnit,
                        std::span<std::uint64_t> words) {
    for (std::size_t unit = 0; unit < words.size(); ++unit) {
        words[unit] |= fresh[firstUnit + unit] ? 1U : 0U;
    }
    return static_cast<std::uint64_t>(std::ranges::count(words, 1U));
}

} // namespace

std::uint64_t compareCaptures(const std::string& before, const std::string& after, std::uint64_t size,
                              const std::vector<bool>& fresh, const TableWriter& write) {
    Image old(before, size);
    Image current(after, size);
    std::vector<std::uint64_t> words(unitsAtOnce);
    std::uint64_t changed = 0;
    for (std::uint64_t offset = 0; offset < size; offset += bytesAtOnce) {
        const std::uint64_t length = std::min(bytesAtOnce, size - offset);
        const std::span<std::uint64_t> piece = std::span(words).first(cow::unitsOf(length));
        if (old.isHole(offset, length) && current.isHole(offset, length)) {
            std::ranges::fill(piece, 0);
        } else {
            markDiffering(old.read(offset, length), current.read(offset, length), piece);
        }
        changed += markFresh(fresh, offset / cow::unitSize, piece);
        write(offset / cow::unitSize, piece);
    }
    return changed;
}

} // namespace tolvubd
