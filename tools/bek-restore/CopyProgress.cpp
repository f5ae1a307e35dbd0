#include "CopyProgress.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sys/stat.h>
#include <utility>

namespace restore {

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t statusUnit = 512; // unit of st_blocks, in bytes

/// The bytes of files without their holes. A file with several hard links is counted once.
class Sum {
public:
    void add(const fs::path& path) {
        struct ::stat status{};
        if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return;
        }
        if (status.st_nlink < 2 || counted.emplace(status.st_dev, status.st_ino).second) {
            bytes += std::min(static_cast<std::uint64_t>(status.st_size),
                              static_cast<std::uint64_t>(status.st_blocks) * statusUnit);
        }
    }

    std::uint64_t bytes = 0;

private:
    std::set<std::pair<dev_t, ino_t>> counted;
};

} // namespace

CopyProgress::CopyProgress(const std::vector<std::string>& paths) {
    if (!progress.isShown()) {
        return;
    }
    Sum sum;
    for (const std::string& path : paths) {
        sum.add(path);
        std::error_code failure;
        if (!fs::is_directory(fs::symlink_status(path, failure))) { // a link may lead out of the image
            continue;
        }
        fs::recursive_directory_iterator entry(path, failure);
        for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
            sum.add(entry->path());
        }
    }
    all = sum.bytes;
}

void CopyProgress::show(pid_t program) {
    std::ifstream counters("/proc/" + std::to_string(program) + "/io");
    std::string name;
    std::uint64_t read = 0;
    if (counters >> name >> read && name == "rchar:") {
        progress.show("copying", std::min(read, all), all);
    }
}

} // namespace restore
