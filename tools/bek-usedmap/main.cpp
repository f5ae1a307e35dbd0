#include "FileRanges.h"
#include "FileReport.h"
#include "Report.h"
#include "core/backup/VolumeReader.h"
#include "core/fs/FileSystemKinds.h"
#include "info/log/Logger.h"
#include "tools/common/StandardErrorLog.h"
#include "tools/usedmap/DriverFiles.h"
#include "tools/usedmap/SectorSize.h"
#include "tools/usedmap/UsedRanges.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>

namespace usedmap {
namespace {

constexpr std::size_t mebibyte = 1024UL * 1024;

using agent::core::fs::FileSystemKind;

/// The volumes of those kinds for which `isSelected` is true.
std::string volumesWith(bool (*isSelected)(const FileSystemKind&)) {
    std::string volumes;
    for (const FileSystemKind& kind : agent::core::fs::fileSystemKinds()) {
        if (isSelected(kind)) {
            volumes += (volumes.empty() ? "" : ", ") + std::string(kind.volumes);
        }
    }
    return volumes;
}

std::string description() {
    return R"(bek-usedmap - print which blocks of a volume are used

Reads the allocation structures of DEVICE, a block device or an image in a file, exactly as a backup does, and
prints the ranges of blocks that a FULL backup would copy: one a line, first block and number of blocks. The
device is only read, past the page cache. The map is that of the disk: unmount the volume or freeze it
(fsfreeze) first, or look at a snapshot. Where a backup would copy every block,
bek-usedmap says why and fails.

As in a backup, the snapshot driver's own files (.tolvu and others whose names begin so) are left out, if
DEVICE is mounted somewhere. Of an unmounted device or an image nobody tells where they lie: they are counted
as used, and --summary says so.

With --file it prints where the content of one file lies instead, in the order of the file and without its
holes: the file is in an image if these blocks are. Its path begins at the root of the volume; on NTFS "\" is
between its parts, and upper and lower case are one. A file that is so small that it has no blocks fails, as
does one in so many pieces that not all can be told.

File systems: )" +
           volumesWith([](const FileSystemKind& /*kind*/) { return true; }) + R"(.
With --file: )" +
           volumesWith([](const FileSystemKind& kind) { return kind.findFile != nullptr; }) + R"(.

Exit status: 0; 1 if the volume can't be read, is of an unknown kind, or has no such file; 2 if the command is
wrong.

Examples: bek-usedmap --summary /dev/sda1
          bek-usedmap --file '\Users\ada\mail.pst' /dev/sdb2)";
}

struct Options {
    std::string device;
    std::optional<std::string> file; ///< print the blocks of this file; without it, the map of the volume
    bool kinds = false;
    bool json = false;
    bool summary = false;
    bool verbose = false;
    std::size_t bufferMebibytes = 40;
    std::uint32_t sectorSize = 0; ///< 0 for the device's own
};

void declare(CLI::App& app, Options& options) {
    app.name("bek-usedmap");
    auto* const kinds =
        app.add_flag("--kinds", options.kinds, "print the kinds that are known instead: name, tab, volumes");
    app.add_option("DEVICE", options.device, "block device or image")->excludes(kinds);
    auto* const file = app.add_option("--file", options.file, "print the blocks of this file")
                           ->type_name("PATH")
                           ->excludes(kinds);
    app.add_flag("--json", options.json, "print one JSON object instead of lines");
    app.add_flag("--summary", options.summary, "print bytes used, ranges and seconds instead of the ranges")
        ->excludes(file);
    app.add_flag("--verbose", options.verbose, "show on standard error what is read");
    app.add_option("--buffer", options.bufferMebibytes, "read the map in pieces of this many MiB")
        ->check(CLI::Range(1, 1024))
        ->excludes(file)
        ->capture_default_str();
    app.add_option("--sector-size", options.sectorSize,
                   "the device's sector size in bytes, if not its own word")
        ->check(CLI::IsMember({512, 1024, 2048, 4096}));
}

/// The open device, and its sector size, to which reads are aligned.
struct Device {
    Device(const Options& options, agent::info::Logger& logger) : reader(logger, options.device) {
        if (!reader.open()) {
            throw std::runtime_error("the device can't be opened");
        }
        sectorSize = options.sectorSize != 0 ? options.sectorSize : sectorSizeOf(reader);
    }

    agent::core::backup::VolumeReader reader;
    std::uint32_t sectorSize = 0;
};

Report examine(const Options& options, agent::info::Logger& logger) {
    Device device(options, logger);
    Report report;
    report.device = options.device;
    report.deviceBytes = device.reader.getSize();
    const auto begin = std::chrono::steady_clock::now();
    report.used =
        findUsedRanges(logger, device.reader, device.sectorSize, options.bufferMebibytes * mebibyte);
    if (const auto own = findDriverFiles(logger, device.reader, report.used.blockSize)) {
        report.driverFileBytes = exclude(report.used, *own) * report.used.blockSize;
    }
    report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return report;
}

FileReport examineFile(const Options& options, agent::info::Logger& logger) {
    Device device(options, logger);
    return {options.device, *options.file,
            findFileRanges(logger, device.reader, device.sectorSize, *options.file)};
}

void flushOutput() {
    if (!std::cout.flush()) {
        throw std::runtime_error("standard output can't be written");
    }
}

void print(const Options& options, const Report& report) {
    if (options.json) {
        printJson(std::cout, report, !options.summary);
    } else if (options.summary) {
        printSummary(std::cout, report);
    } else {
        printRanges(std::cout, report);
    }
    flushOutput();
}

void print(const Options& options, const FileReport& report) {
    if (options.json) {
        printJson(std::cout, report);
    } else {
        printRanges(std::cout, report);
    }
    flushOutput();
}

void printKinds() {
    for (const FileSystemKind& kind : agent::core::fs::fileSystemKinds()) {
        std::cout << kind.name << '\t' << kind.volumes << '\n';
    }
    flushOutput();
}

int run(const Options& options) {
    agent::info::Logger logger = tools::standardErrorLog("bek-usedmap", options.verbose);
    try {
        if (!options.file) {
            print(options, examine(options, logger));
        } else {
            print(options, examineFile(options, logger));
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "bek-usedmap: " << options.device << ": " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}

int runCommand(int argumentCount, char** arguments) {
    constexpr int wrongUsage = 2;
    CLI::App app(description());
    Options options;
    declare(app, options);
    try {
        app.parse(argumentCount, arguments);
        if (!options.kinds && options.device.empty()) {
            throw CLI::RequiredError("DEVICE");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : wrongUsage;
    }
    if (options.kinds) {
        printKinds();
        return EXIT_SUCCESS;
    }
    return run(options);
}

} // namespace
} // namespace usedmap

int main(int argumentCount, char** arguments) {
    try {
        return usedmap::runCommand(argumentCount, arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bek-usedmap: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
