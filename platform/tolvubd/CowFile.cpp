#include "CowFile.h"

#include "AtomicFile.h"
#include "Failure.h"
#include "Uuid.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

namespace tolvubd {

namespace {

/// The header as it is on disk, little endian.
struct Header {
    std::uint32_t magic = cow::magic;
    std::array<std::uint8_t, 28> reserved{};
    UuidBytes snapshot{};
    std::uint64_t version = cow::version;
    std::uint64_t changedUnits = 0;
};
static_assert(sizeof(Header) == 64 && offsetof(Header, snapshot) == 32 &&
              offsetof(Header, changedUnits) == 56);

Header readHeader(const os::FileDescriptor& file, const std::string& path) {
    struct stat status{};
    checked(::fstat(file.get(), &status), "look at " + path);
    Header header;
    if (!S_ISREG(status.st_mode) ||
        readAt(file, std::as_writable_bytes(std::span(&header, 1)), 0) != sizeof header ||
        header.magic != cow::magic) {
        fail(EBADMSG, path + " is no CoW file");
    }
    return header;
}

os::FileDescriptor openCowFile(const std::string& path, int flags) {
    return openFile(path, flags | O_NOFOLLOW | O_NONBLOCK, ownerOnly);
}

bool isCowFileOf(const std::string& path, const std::string& snapshot) {
    try {
        return snapshotOf(path) == snapshot;
    } catch (const std::system_error& error) {
        const int reason = error.code().value();
        if (reason == ENOENT || reason == ELOOP || reason == EBADMSG) {
            return false;
        }
        throw;
    }
}

/// Passes if no file has the name, or a CoW file has it; throws EEXIST otherwise.
void requireReplaceable(const std::string& path) {
    try {
        static_cast<void>(snapshotOf(path));
    } catch (const std::system_error& error) {
        const int reason = error.code().value();
        if (reason == ELOOP || reason == EBADMSG) {
            fail(EEXIST, path + " is no CoW file and stays");
        }
        if (reason != ENOENT) {
            throw;
        }
    }
}

/// Writes zeros if the file system can't reserve space.
void reserve(const os::FileDescriptor& file, const std::string& path, std::uint64_t size) {
    if (::fallocate(file.get(), 0, 0, static_cast<off_t>(size)) == 0) {
        return;
    }
    if (errno != EOPNOTSUPP) {
        failWithErrno("reserve the space of " + path);
    }
    const std::vector<std::byte> zeros(std::size_t{1} << 20);
    for (std::uint64_t offset = 0; offset < size; offset += zeros.size()) {
        writeAt(file, std::span(zeros).first(std::min<std::uint64_t>(zeros.size(), size - offset)), offset);
    }
}

} // namespace

void makeCowFile(const std::string& path, const std::string& snapshot, std::uint64_t size) {
    requireReplaceable(path);
    const std::string unfinished = path + unfinishedSuffix;
    removeFile(unfinished);
    {
        const os::FileDescriptor file = openCowFile(unfinished, O_WRONLY | O_CREAT | O_EXCL);
        reserve(file, path, size);
        Header header;
        header.snapshot = uuidBytes(snapshot);
        writeAt(file, std::as_bytes(std::span(&header, 1)), 0);
        syncFile(file, unfinished);
    }
    checked(::rename(unfinished.c_str(), path.c_str()), "rename to " + path);
    syncDirectory(directoryOf(path));
}

CowTable::CowTable(const std::string& path, const std::string& snapshot, std::uint64_t volumeSize)
    : path(path), file(openCowFile(path, O_RDWR)) {
    if (uuidText(readHeader(file, path).snapshot) != snapshot) {
        fail(EBADMSG, path + " belongs to another snapshot");
    }
    struct stat status{};
    checked(::fstat(file.get(), &status), "look at " + path);
    if (static_cast<std::uint64_t>(status.st_size) < cow::tableEnd(volumeSize)) {
        fail(EFBIG, "the table in " + path);
    }
}

void CowTable::write(std::uint64_t firstUnit, std::span<const std::uint64_t> words) {
    writeAt(file, std::as_bytes(words), cow::tableOffset + firstUnit * sizeof(std::uint64_t));
}

void CowTable::finish(std::uint64_t changedUnits) {
    syncFile(file, path);
    writeAt(file, std::as_bytes(std::span(&changedUnits, 1)), offsetof(Header, changedUnits));
    syncFile(file, path);
}

std::string snapshotOf(const std::string& path) {
    return uuidText(readHeader(openCowFile(path, O_RDONLY), path).snapshot);
}

void removeCowFile(const std::string& path, const std::string& snapshot) {
    removeFile(path + unfinishedSuffix);
    if (isCowFileOf(path, snapshot)) {
        removeFile(path);
    }
}

} // namespace tolvubd
