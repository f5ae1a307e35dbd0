#include "AtomicFile.h"

#include "Failure.h"
#include "FileAccess.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <span>
#include <sys/stat.h>

namespace tolvubd {

namespace {

os::FileDescriptor writeFile(const std::string& path, const std::string& text, unsigned mode) {
    os::FileDescriptor file = openFile(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, mode);
    checked(::fchmod(file.get(), mode), "set the mode of " + path);
    writeAt(file, std::as_bytes(std::span(text)), 0);
    return file;
}

/// Returns false when one of the two doesn't exist.
bool exchange(const std::string& one, const std::string& other) {
    if (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        failWithErrno("exchange " + one + " and " + other);
    }
    return false;
}

} // namespace

void replaceFileWithoutSync(const std::string& path, const std::string& text, unsigned mode) {
    const std::string unfinished = path + unfinishedSuffix;
    writeFile(unfinished, text, mode);
    checked(::rename(unfinished.c_str(), path.c_str()), "rename to " + path);
}

void replaceFileDurably(const std::string& path, const std::string& text, unsigned mode) {
    const std::string unfinished = path + unfinishedSuffix;
    syncFile(writeFile(unfinished, text, mode), unfinished);
    if (!exchange(unfinished, path)) {
        checked(::rename(unfinished.c_str(), path.c_str()), "rename to " + path);
    }
    try {
        syncDirectory(directoryOf(path));
    } catch (...) {
        restorePreviousFile(path);
        throw;
    }
}

void restorePreviousFile(const std::string& path) {
    if (!exchange(path + unfinishedSuffix, path)) {
        removeFile(path);
    }
}

std::string readFile(const std::string& path, std::size_t limit) {
    const os::FileDescriptor file = openFile(path, O_RDONLY);
    struct stat status{};
    checked(::fstat(file.get(), &status), "look at " + path);
    if (static_cast<std::uintmax_t>(status.st_size) > limit) {
        fail(EFBIG, path);
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    text.resize(readAt(file, std::as_writable_bytes(std::span(text)), 0));
    return text;
}

std::string directoryOf(const std::string& path) {
    return std::filesystem::path(path).parent_path();
}

} // namespace tolvubd
