#include "TreeComparison.h"

#include "common/PosixError.h"
#include "os/FileDescriptor.h"
#include "os/Transfer.h"
#include "tools/restore/view/Attributes.h"
#include "tools/restore/view/Entry.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <span>
#include <stdexcept>

namespace restore::check {

namespace {

using view::Entry;

constexpr std::size_t mostShown = 20;
constexpr std::size_t readAtOnce = 1UL << 20U;

os::FileDescriptor openFile(int directory, const std::string& name, int flags) {
    os::FileDescriptor file(::openat(directory, name.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) {
        throw agent::PosixError("it can't be opened", errno);
    }
    return file;
}

/// Walks both trees side by side.
class TreeWalk {
public:
    // As deep as descriptors of directories can be had. NOLINTNEXTLINE(misc-no-recursion)
    void compareDirectories(int one, int other, const std::string& path) {
        const auto mine = visible(one, path);
        const auto theirs = visible(other, path);
        auto next = theirs.begin();
        for (const Entry& entry : mine) {
            for (; next != theirs.end() && next->name < entry.name; ++next) {
                note(path + next->name, "missing in the image");
            }
            if (next == theirs.end() || next->name != entry.name) {
                note(path + entry.name, "only in the image");
                continue;
            }
            compareEntries(one, other, path + entry.name, entry, *next++);
        }
        for (; next != theirs.end(); ++next) {
            note(path + next->name, "missing in the image");
        }
    }

    TreeDifferences found;

private:
    static std::vector<Entry> visible(int directory, const std::string& path) {
        std::vector<Entry> entries = view::entriesOf(directory);
        if (path.empty()) {
            std::erase_if(entries, [](const Entry& entry) { return view::isDriverFile(entry.name); });
        }
        return entries;
    }

    // NOLINTNEXTLINE(misc-no-recursion)
    void compareEntries(int one, int other, const std::string& path, const Entry& mine, const Entry& theirs) {
        ++found.files;
        try {
            if (const std::string what = differenceOf(one, other, mine, theirs); !what.empty()) {
                note(path, what);
            }
            if (S_ISDIR(mine.status.st_mode) && S_ISDIR(theirs.status.st_mode)) {
                const os::FileDescriptor below = openFile(one, mine.name, O_DIRECTORY);
                const os::FileDescriptor theirBelow = openFile(other, mine.name, O_DIRECTORY);
                compareDirectories(below.get(), theirBelow.get(), path + "/");
            }
        } catch (const std::runtime_error& error) {
            note(path, error.what());
        }
    }

    /// Returns the first difference. The content comes last, as it takes longest to compare.
    std::string differenceOf(int one, int other, const Entry& mine, const Entry& theirs) {
        const struct ::stat& a = mine.status;
        const struct ::stat& b = theirs.status;
        if ((a.st_mode & S_IFMT) != (b.st_mode & S_IFMT)) {
            return "its kind differs";
        }
        if (a.st_mode != b.st_mode) {
            return "its mode differs";
        }
        if (a.st_uid != b.st_uid || a.st_gid != b.st_gid) {
            return "its owner differs";
        }
        if (a.st_mtim.tv_sec != b.st_mtim.tv_sec || a.st_mtim.tv_nsec != b.st_mtim.tv_nsec) {
            return "its time differs";
        }
        if (mine.target != theirs.target) {
            return "it leads elsewhere";
        }
        if (a.st_rdev != b.st_rdev) {
            return "its device differs";
        }
        if (view::attributesOf(one, mine.name) != view::attributesOf(other, mine.name)) {
            return "its extended attributes differ";
        }
        return S_ISREG(a.st_mode) ? differenceOfContent(one, other, mine, theirs) : "";
    }

    /// Reads both files side by side, so that memory doesn't grow with their size.
    std::string differenceOfContent(int one, int other, const Entry& mine, const Entry& theirs) {
        if (mine.status.st_size != theirs.status.st_size) {
            return "its size differs";
        }
        const os::FileDescriptor file = openFile(one, mine.name, O_NONBLOCK);
        const os::FileDescriptor theirFile = openFile(other, mine.name, O_NONBLOCK);
        std::uint64_t at = 0;
        while (true) {
            const std::size_t count = read(file, buffer);
            if (read(theirFile, theirBuffer) != count) {
                return "its content ends elsewhere";
            }
            const auto first = std::mismatch(
                buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count), theirBuffer.begin());
            const auto equal = static_cast<std::uint64_t>(first.first - buffer.begin());
            if (equal < count) {
                return "its content differs at byte " + std::to_string(at + equal);
            }
            if (count == 0) {
                return "";
            }
            at += count;
        }
    }

    static std::size_t read(const os::FileDescriptor& file, std::vector<std::byte>& into) {
        const os::Transfer got = os::readUpTo(file.get(), into);
        if (got.error != 0) {
            throw agent::PosixError("it can't be read", got.error);
        }
        return got.bytes;
    }

    void note(const std::string& path, const std::string& what) {
        ++found.differences;
        if (found.first.size() < mostShown) {
            found.first.push_back("/" + view::escaped(path) + ": " + what);
        }
    }

    std::vector<std::byte> buffer = std::vector<std::byte>(readAtOnce);
    std::vector<std::byte> theirBuffer = std::vector<std::byte>(readAtOnce);
};

} // namespace

TreeDifferences compareTrees(int image, int snapshot) {
    TreeWalk walk;
    walk.compareDirectories(image, snapshot, "");
    return walk.found;
}

} // namespace restore::check
