#include "seal/BootRecord.h"

#include "AtomicFile.h"
#include "Failure.h"
#include "FileAccess.h"
#include "JsonFields.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <sys/stat.h>

namespace tolvubd {

namespace {

using nlohmann::json;

constexpr int format = 1;
/// How deep the record's text is nested: document, list of volumes, volume, list of numbers.
constexpr int deepest = 4;
constexpr std::size_t mostVolumes = 256;
constexpr std::size_t mostAdopted = 16;
constexpr std::size_t longestName = 127; // of a device-mapper device; also the limit of its UUID
constexpr std::size_t largestRecord = std::size_t{4} << 20;
constexpr std::uint64_t largestVolume = std::numeric_limits<std::int64_t>::max();

/// Reads a text that is safe as a device name and in a shell command.
std::string name(const json& object, const char* key) {
    auto text = object.at(key).get<std::string>();
    const bool isPlain = std::ranges::all_of(text, [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '-' || letter == '_' || letter == '.';
    });
    fields::require(isPlain && !text.empty() && text.size() <= longestName && text[0] != '.', key);
    return text;
}

json fromVolume(const BootRecord::Volume& volume) {
    return {{"id", volume.id},
            {"volume", volume.volume},
            {"size", volume.size},
            {"era_file", fields::fromExtents(volume.eraFile)}};
}

BootRecord::Volume toVolume(const json& object) {
    return {fields::uuid(object, "id"), name(object, "volume"), fields::number(object, "size", largestVolume),
            fields::toExtents(object.at("era_file"))};
}

json fromAdopted(const BootRecord::Adopted& adopted) {
    return {{"partition", adopted.partition}, {"name", adopted.name}};
}

BootRecord::Adopted toAdopted(const json& object) {
    return {name(object, "partition"), name(object, "name")};
}

std::string textOf(const BootRecord& record) {
    return fields::dump({{"format", format},
                         {"volumes", fields::fromList(record.volumes, fromVolume)},
                         {"adopted", fields::fromList(record.adopted, fromAdopted)}});
}

BootRecord recordFrom(const std::string& text) {
    const json document = fields::parse(text, deepest);
    fields::require(document.at("format") == format, "format");
    return {fields::toList(document.at("volumes"), mostVolumes, toVolume),
            fields::toList(document.at("adopted"), mostAdopted, toAdopted)};
}

/// The content of the file; none when there is no file.
std::optional<std::string> readText(const std::string& path) {
    try {
        return readFile(path, largestRecord);
    } catch (const std::system_error& error) {
        if (error.code().value() != ENOENT) {
            throw;
        }
    }
    return std::nullopt;
}

void makeDirectory(const std::string& path) {
    constexpr mode_t ownerWrites = 0755;
    if (::mkdir(path.c_str(), ownerWrites) == 0) {
        syncDirectory(directoryOf(path));
    } else if (errno != EEXIST) {
        failWithErrno("make " + path);
    }
}

} // namespace

BootRecord readBootRecord(const std::string& path) {
    const std::optional<std::string> text = readText(path);
    try {
        return text ? recordFrom(*text) : BootRecord();
    } catch (const std::exception& error) {
        fail(EBADMSG, path + ": " + error.what());
    }
}

void writeBootRecord(const std::string& path, const BootRecord& record) {
    const std::string text = textOf(record);
    if (text == readText(path)) {
        return;
    }
    makeDirectory(directoryOf(path));
    constexpr unsigned ownerWrites = 0644;
    replaceFileDurably(path, text, ownerWrites);
}

} // namespace tolvubd
