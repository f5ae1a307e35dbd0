#pragma once

#include "core/fs/FileBlocks.h"

#include <iosfwd>
#include <string>

namespace usedmap {

/// The report about a file.
struct FileReport {
    std::string device;
    std::string path;
    agent::core::fs::FileBlocks file;
};

/// One range per line: first block, and number of blocks.
void printRanges(std::ostream& out, const FileReport& report);
/// One JSON object in one line.
void printJson(std::ostream& out, const FileReport& report);

} // namespace usedmap
