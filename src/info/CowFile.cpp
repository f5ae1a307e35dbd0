#include "info/CowFile.h"

#include "common/PosixError.h"
#include "info/CowFormat.h"
#include "info/DriverFile.h"
#include "info/log/Logger.h"

#include <uuid/uuid.h>

#include <cerrno>
#include <concepts>
#include <optional>
#include <span>
#include <stdexcept>

namespace agent::info {

namespace {

// Offsets of the header's fields.
constexpr std::size_t magicOffset = 0;
constexpr std::size_t uuidOffset = 32;
constexpr std::size_t versionOffset = 48;
constexpr std::size_t changedBlocksOffset = 56;

template <std::unsigned_integral Number>
Number littleEndian(std::span<const std::byte> bytes, std::size_t offset) {
    Number number = 0;
    for (std::size_t index = sizeof(Number); index > 0; --index) {
        number = static_cast<Number>(number << 8U) | std::to_integer<Number>(bytes[offset + index - 1]);
    }
    return number;
}

std::string uuidText(std::span<const std::byte> bytes) {
    uuid_t uuid{};
    for (std::size_t index = 0; index < sizeof(uuid); ++index) {
        uuid[index] = std::to_integer<unsigned char>(bytes[uuidOffset + index]);
    }
    std::string text(UUID_STR_LEN, '\0');
    ::uuid_unparse_lower(uuid, text.data());
    text.pop_back(); // the NUL
    return text;
}

[[noreturn]] void fail(const std::string& message) {
    throw PosixError(message, errno);
}

} // namespace

/// Reads only the header and the file's size: the table of a large volume takes hundreds of megabytes.
CowFile::CowFile(Logger& logger, const Path& path) {
    const std::string quoted = "\"" + path.str() + "\"";
    DriverFile file(path, DriverFile::Access::read);
    if (!file) {
        fail("Open cow file " + quoted + " failed: ");
    }
    if (!file.seek(0)) {
        fail("Could not seek to 0 in " + quoted + ". ");
    }
    if (!file.read(header)) {
        fail("Could not read header from " + quoted + ". ");
    }
    if (littleEndian<std::uint32_t>(header, magicOffset) != cow::magic) {
        throw std::logic_error(path.str() + " is not a valid linux cow header");
    }
    const std::optional<std::uint64_t> end = file.seekToEnd();
    if (!end) {
        fail("Could not seek to end in " + quoted + ". ");
    }
    fileSize = *end;
    snapshotUuid = uuidText(header);
    LogEntry(logger, level::debug) << "Cow File Read: " << path.str() << ", Snapshot UUID: " << snapshotUuid
                                   << ", Version: " << getVersion()
                                   << ", Bitmap Offset: " << getBitmapOffset()
                                   << ", Bitmap Length: " << getBitmapLength()
                                   << ", # Changed Blocks: " << getChangedBlocks();
}

std::uint64_t CowFile::getVersion() const {
    return littleEndian<std::uint64_t>(header, versionOffset);
}

std::uint64_t CowFile::getChangedBlocks() const {
    return littleEndian<std::uint64_t>(header, changedBlocksOffset);
}

std::uint64_t CowFile::getBitmapOffset() const {
    return cow::tableOffset;
}

std::uint64_t CowFile::getBitmapLength() const {
    return fileSize > cow::tableOffset ? fileSize - cow::tableOffset : 0;
}

std::uint64_t CowFile::getBitmapEntries() const {
    return getBitmapLength() / cow::entrySize;
}

std::uint64_t CowFile::getBlockSize() const {
    return cow::blockSize;
}

} // namespace agent::info
