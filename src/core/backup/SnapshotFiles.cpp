#include "core/backup/SnapshotFiles.h"

#include "common/File.h"
#include "info/VolumeFiles.h"

namespace agent::core::backup::snapshot_files {

namespace {

using info::volume_files::firstCow;
using info::volume_files::secondCow;

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

} // namespace

std::vector<std::string> pathsUnder(const Path& root, const std::vector<std::string>& driverFiles) {
    std::vector<std::string> files{root / firstCow, root / secondCow, root / info::volume_files::history};
    for (const std::string& name : driverFiles) {
        files.push_back(root / name);
    }
    return files;
}

std::string changeRecord(const Path& root, const info::DriverDeviceInfo& device) {
    const bool isInSnapshot = device.state == info::driver_state::activeSnapshot;
    const bool isSecondCurrent = device.cow_file.ends_with(secondCow);
    const Path second = root / secondCow;
    // The second file may not exist: a first snapshot has only one CoW file, and the file of a tracked device
    // may have been deleted.
    const bool isSecond = isInSnapshot != isSecondCurrent && file::exists(second);
    return isSecond ? second.str() : (root / firstCow).str();
}

std::string oldCowFile(const Path& root, const info::DriverDeviceInfo& device) {
    const bool isSecondCurrent = device.cow_file == std::string("/") + secondCow;
    Path file = root / (isSecondCurrent ? firstCow : secondCow);
    return file.str();
}

bool areBothCowFiles(const std::string& one, const std::string& other) {
    const std::string first = baseName(one);
    const std::string second = baseName(other);
    return (first == firstCow && second == secondCow) || (first == secondCow && second == firstCow);
}

} // namespace agent::core::backup::snapshot_files
