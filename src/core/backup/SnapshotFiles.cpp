#include "core/backup/SnapshotFiles.h"

#include "common/File.h"

namespace agent::core::backup::snapshot_files {

namespace {

constexpr const char* firstCowFile = ".tolvu";
constexpr const char* secondCowFile = ".tolvu1";
constexpr const char* history = ".tolvu.inc";

constexpr int inSnapshot = 3;

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

} // namespace

std::vector<std::string> below(const Path& root) {
    return {root / firstCowFile, root / secondCowFile, root / history};
}

std::string changeRecord(const Path& root, const info::DriverDeviceInfo& device) {
    const bool isInSnapshot = device.state == inSnapshot;
    const bool isSecondCurrent = device.cow_file.ends_with(secondCowFile);
    const Path second = root / secondCowFile;
    // A first snapshot has no file beside the current one, and what was tracked may have lost its own.
    const bool isSecond = isInSnapshot != isSecondCurrent && file::exists(second);
    return isSecond ? second.str() : (root / firstCowFile).str();
}

std::string old(const Path& root, const info::DriverDeviceInfo& device) {
    const bool isSecondCurrent = device.cow_file == std::string("/") + secondCowFile;
    Path file = root / (isSecondCurrent ? firstCowFile : secondCowFile);
    return file.str();
}

bool areBothCowFiles(const std::string& one, const std::string& other) {
    const std::string first = baseName(one);
    const std::string second = baseName(other);
    return (first == firstCowFile && second == secondCowFile) ||
           (first == secondCowFile && second == firstCowFile);
}

} // namespace agent::core::backup::snapshot_files
