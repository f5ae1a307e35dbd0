#include "Entry.h"

#include "common/PosixError.h"
#include "info/VolumeFiles.h"
#include "os/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <memory>
#include <string_view>
#include <unistd.h>

namespace restore::view {

namespace {

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

std::string targetOf(int directory, const std::string& name) {
    std::array<char, PATH_MAX> text{};
    const ::ssize_t length = ::readlinkat(directory, name.c_str(), text.data(), text.size());
    if (length < 0) {
        throw agent::PosixError("the link " + escaped(name) + " can't be read", errno);
    }
    return {text.data(), static_cast<std::size_t>(length)};
}

struct Type {
    mode_t bits;
    char letter;
    const char* text;
};
constexpr std::array types{Type{S_IFREG, '-', "file"},
                           Type{S_IFDIR, 'd', "directory"},
                           Type{S_IFLNK, 'l', "link"},
                           Type{S_IFIFO, 'p', "fifo"},
                           Type{S_IFSOCK, 's', "socket"},
                           Type{S_IFBLK, 'b', "block device"},
                           Type{S_IFCHR, 'c', "character device"}};

const Type& typeOf(mode_t mode) {
    const auto* const found = std::ranges::find(types, mode & S_IFMT, &Type::bits);
    return found == types.end() ? types.front() : *found;
}

/// The letter of the right to execute, combined with the setuid, setgid or sticky bit.
char executeLetter(bool isSet, bool isSpecial, char special) {
    constexpr char toCapital = 'A' - 'a';
    return isSpecial ? (isSet ? special : static_cast<char>(special + toCapital)) : (isSet ? 'x' : '-');
}

} // namespace

std::vector<Entry> entriesOf(int directory) {
    os::FileDescriptor own(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, CloseDirectory> stream(own ? ::fdopendir(own.get()) : nullptr);
    if (!stream) {
        throw agent::PosixError("a directory can't be opened", errno);
    }
    own.release();
    std::vector<Entry> found;
    while (true) {
        errno = 0;
        const ::dirent* const next = ::readdir(stream.get()); // NOLINT(concurrency-mt-unsafe): ours alone
        if (next == nullptr) {
            break;
        }
        const std::string name(&next->d_name[0]);
        if (name != "." && name != "..") {
            found.push_back(entryOf(directory, name));
        }
    }
    if (errno != 0) {
        throw agent::PosixError("a directory can't be read", errno);
    }
    std::ranges::sort(found, {}, &Entry::name);
    return found;
}

Entry entryOf(int directory, const std::string& name) {
    Entry entry;
    entry.name = name;
    if (::fstatat(directory, name.c_str(), &entry.status, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH) != 0) {
        throw agent::PosixError(escaped(name) + " can't be looked at", errno);
    }
    if (S_ISLNK(entry.status.st_mode)) {
        entry.target = targetOf(directory, name);
    }
    return entry;
}

bool isDriverFile(const std::string& name) {
    return name.starts_with(agent::info::volume_files::firstCow);
}

std::string modeText(mode_t mode) {
    std::string text(1, typeOf(mode).letter);
    struct Class {
        unsigned shift;
        mode_t special;
        char letter;
    };
    for (const auto& [shift, special, letter] :
         {Class{6, S_ISUID, 's'}, Class{3, S_ISGID, 's'}, Class{0, S_ISVTX, 't'}}) {
        const mode_t rights = mode >> shift;
        text += (rights & S_IROTH) != 0 ? 'r' : '-';
        text += (rights & S_IWOTH) != 0 ? 'w' : '-';
        text += executeLetter((rights & S_IXOTH) != 0, (mode & special) != 0, letter);
    }
    return text;
}

std::string typeText(mode_t mode) {
    return typeOf(mode).text;
}

std::string escaped(const std::string& name) {
    constexpr unsigned char firstPrintable = 0x20;
    constexpr unsigned char rubout = 0x7f;
    std::string text;
    for (const char letter : name) {
        const auto code = static_cast<unsigned char>(letter);
        if (letter == '\\') {
            text += "\\\\";
        } else if (letter == '\n') {
            text += "\\n";
        } else if (code < firstPrintable || code == rubout) {
            std::array<char, 8> octal{};
            std::snprintf(octal.data(), octal.size(), "\\%03o", code);
            text += octal.data();
        } else {
            text += letter;
        }
    }
    return text;
}

} // namespace restore::view
