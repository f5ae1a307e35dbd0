#include "FileSystemFacts.h"

#include "Program.h"
#include "common/PosixError.h"
#include "os/FileDescriptor.h"

#include <array>
#include <blkid/blkid.h>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace restore::view {

namespace {

constexpr std::chrono::seconds toolTimeout(120);
constexpr std::uint64_t partitionUnit = 512; // of libblkid, whatever the device's sectors are

using BlockProbe = std::unique_ptr<blkid_struct_probe, void (*)(blkid_probe)>;

/// A probe of a part of the device; of everything from `offset` on if `bytes` is 0.
BlockProbe probeOf(const os::FileDescriptor& device, std::uint64_t offset, std::uint64_t bytes) {
    BlockProbe probe(::blkid_new_probe(), ::blkid_free_probe);
    if (!probe || ::blkid_probe_set_device(probe.get(), device.get(), static_cast<blkid_loff_t>(offset),
                                           static_cast<blkid_loff_t>(bytes)) != 0) {
        throw std::runtime_error("the device can't be looked at");
    }
    return probe;
}

os::FileDescriptor openDevice(const std::string& device) {
    os::FileDescriptor opened(::open(device.c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened) {
        throw agent::PosixError(device + " can't be opened", errno);
    }
    return opened;
}

std::string wordOf(blkid_probe probe, const char* name) {
    const char* value = nullptr;
    return ::blkid_probe_lookup_value(probe, name, &value, nullptr) == 0 && value != nullptr ? value : "";
}

ProbeResult foundAt(const os::FileDescriptor& device, std::uint64_t offset, std::uint64_t bytes) {
    const BlockProbe probe = probeOf(device, offset, bytes);
    ::blkid_probe_enable_superblocks(probe.get(), 1);
    ::blkid_probe_set_superblocks_flags(probe.get(),
                                        BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID);
    ProbeResult found{offset, static_cast<std::uint64_t>(::blkid_probe_get_size(probe.get())), "", "", ""};
    constexpr int several = -2;
    const int result = ::blkid_do_safeprobe(probe.get());
    if (result == 0) {
        found.kind = wordOf(probe.get(), "TYPE");
        found.label = wordOf(probe.get(), "LABEL");
        found.uuid = wordOf(probe.get(), "UUID");
    } else if (result == several) {
        found.kind = "several at once";
    }
    return found;
}

std::vector<std::string> wordsIn(const std::string& text, char separator) {
    std::vector<std::string> words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, separator);) {
        if (!word.empty()) {
            words.push_back(word);
        }
    }
    return words;
}

/// The rest of the first line that begins with `name` and a colon or an equals sign, without leading blanks.
std::string fieldOf(const std::string& output, const std::string& name) {
    const std::regex line("(?:^|\n)\\s*" + name + "\\s*[:=] *([^\n]*)");
    std::smatch found;
    return std::regex_search(output, found, line) ? found[1].str() : "";
}

bool has(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

/// Parses a time as ctime(3) writes it, in UTC.
std::optional<std::time_t> momentIn(const std::string& text) {
    std::tm broken{};
    return ::strptime(text.c_str(), "%a %b %d %H:%M:%S %Y", &broken) == nullptr
               ? std::nullopt
               : std::optional(::timegm(&broken));
}

/// Returns the output of a tool. If the tool is missing or fails, returns an empty text and sets the note.
std::string printedBy(std::vector<std::string> command, FileSystemFacts& facts) {
    const std::string name = command.front();
    try {
        const Outcome outcome =
            runProgram({.command = std::move(command), .environment = {{"TZ", "UTC"}}}, toolTimeout);
        if (outcome.status == 0) {
            return outcome.output;
        }
        facts.note = name + ": " + lastOutputLine(outcome.output);
    } catch (const std::runtime_error& error) {
        facts.note = error.what();
    }
    return "";
}

FileSystemFacts extFacts(const std::string& device) {
    FileSystemFacts facts;
    const std::string output = printedBy({"dumpe2fs", "-h", device}, facts);
    const std::string features = fieldOf(output, "Filesystem features");
    const std::string state = fieldOf(output, "Filesystem state");
    facts.features = wordsIn(features, ' ');
    facts.mounted = momentIn(fieldOf(output, "Last mount time"));
    facts.written = momentIn(fieldOf(output, "Last write time"));
    if (has(features, "needs_recovery")) {
        facts.cleanState = CleanState::needsReplay;
    } else if (!state.empty()) {
        facts.cleanState = state == "clean" ? CleanState::clean : CleanState::dirty;
    }
    return facts;
}

/// XFS doesn't store these times.
FileSystemFacts xfsFacts(const std::string& device) {
    FileSystemFacts facts;
    const std::string version = printedBy({"xfs_db", "-r", "-c", "version", device}, facts);
    facts.features = wordsIn(fieldOf(version, "versionnum[^=]*"), ',');
    const std::string log = printedBy({"xfs_logprint", "-t", device}, facts);
    if (has(log, "<CLEAN>")) {
        facts.cleanState = CleanState::clean;
    } else if (has(log, "<DIRTY>")) {
        facts.cleanState = CleanState::needsReplay;
    }
    return facts;
}

FileSystemFacts ntfsFacts(const std::string& device) {
    FileSystemFacts facts;
    const std::string output = printedBy({"ntfsinfo", "--force", "--mft", device}, facts);
    if (const std::string version = fieldOf(output, "Volume Version"); !version.empty()) {
        facts.features = {"version " + version};
    }
    constexpr unsigned long isDirty = 1;
    if (const std::string flags = fieldOf(output, "Volume Flags"); !flags.empty()) {
        facts.cleanState =
            (std::strtoul(flags.c_str(), nullptr, 0) & isDirty) != 0 ? CleanState::dirty : CleanState::clean;
    }
    return facts;
}

FileSystemFacts fatFacts(const std::string& device) {
    FileSystemFacts facts;
    const std::string output = printedBy({"fsck.fat", "-n", "-v", device}, facts);
    const std::regex bits("([0-9]+) bit entries");
    if (std::smatch found; std::regex_search(output, found, bits)) {
        facts.features = {"FAT" + found[1].str()};
        facts.cleanState = has(output, "Dirty bit is set") ? CleanState::dirty : CleanState::clean;
    }
    return facts;
}

std::uint32_t bigEndianAt(const std::array<unsigned char, 512>& header, std::size_t at) {
    return std::uint32_t{header.at(at)} << 24U | std::uint32_t{header.at(at + 1)} << 16U |
           std::uint32_t{header.at(at + 2)} << 8U | header.at(at + 3);
}

/// Usual systems have no tool for HFS+, so this reads the volume header, at byte 1024.
FileSystemFacts hfsFacts(const std::string& device) {
    constexpr ::off_t headerAt = 1024;
    constexpr std::size_t attributesAt = 4;
    constexpr std::size_t modifiedAt = 20;
    constexpr std::uint32_t unmountedBit = 1U << 8U;
    constexpr std::uint32_t journaledBit = 1U << 13U;
    constexpr std::time_t from1904To1970 = 2'082'844'800;
    std::array<unsigned char, 512> header{};
    FileSystemFacts facts;
    if (::pread(openDevice(device).get(), header.data(), header.size(), headerAt) !=
        static_cast<::ssize_t>(header.size())) {
        facts.note = "the volume header can't be read";
        return facts;
    }
    const std::uint32_t attributes = bigEndianAt(header, attributesAt);
    if ((attributes & journaledBit) != 0) {
        facts.features = {"journaled"};
    }
    facts.written = std::time_t{bigEndianAt(header, modifiedAt)} - from1904To1970;
    facts.cleanState = (attributes & unmountedBit) != 0   ? CleanState::clean
                       : (attributes & journaledBit) != 0 ? CleanState::needsReplay
                                                          : CleanState::dirty;
    return facts;
}

} // namespace

ProbeResult findWhole(const std::string& device) {
    return foundAt(openDevice(device), 0, 0);
}

std::vector<ProbeResult> findPartitions(const std::string& device) {
    const os::FileDescriptor opened = openDevice(device);
    const BlockProbe probe = probeOf(opened, 0, 0);
    ::blkid_probe_enable_superblocks(probe.get(), 0);
    ::blkid_probe_enable_partitions(probe.get(), 1);
    blkid_partlist partitions = ::blkid_probe_get_partitions(probe.get());
    std::vector<ProbeResult> all;
    const int count = partitions == nullptr ? 0 : ::blkid_partlist_numof_partitions(partitions);
    for (int index = 0; index < count; ++index) {
        blkid_partition partition = ::blkid_partlist_get_partition(partitions, index);
        const auto begin = static_cast<std::uint64_t>(::blkid_partition_get_start(partition));
        const auto length = static_cast<std::uint64_t>(::blkid_partition_get_size(partition));
        if (length > 0) {
            all.push_back(foundAt(opened, begin * partitionUnit, length * partitionUnit));
        }
    }
    return all;
}

FileSystemFacts factsOf(const std::string& device, const std::string& kind) {
    if (kind.starts_with("ext")) {
        return extFacts(device);
    }
    if (kind == "xfs") {
        return xfsFacts(device);
    }
    if (kind == "ntfs") {
        return ntfsFacts(device);
    }
    if (kind == "vfat") {
        return fatFacts(device);
    }
    return kind == "hfsplus" ? hfsFacts(device) : FileSystemFacts{};
}

} // namespace restore::view
