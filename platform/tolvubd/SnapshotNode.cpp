#include "SnapshotNode.h"

#include "Failure.h"
#include "FileAccess.h"
#include "HiddenNode.h"
#include "Layout.h"
#include "NumberAfter.h"

#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <system_error>

namespace tolvubd {

namespace {

namespace fs = std::filesystem;

bool isBlockDevice(const fs::directory_entry& entry) {
    std::error_code ignored;
    return fs::is_block_file(entry.symlink_status(ignored));
}

} // namespace

void showDevice(dev_t number, std::uint32_t minor) {
    HiddenNode(number).rename(layout::node(minor));
}

void requireUnused(std::uint32_t minor) {
    const os::FileDescriptor device(::open(layout::node(minor).c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
    if (!device && errno == EBUSY) {
        failWithErrno(layout::node(minor));
    }
}

void removeNodesExcept(const std::set<std::uint32_t>& minors) {
    for (const fs::directory_entry& entry : fs::directory_iterator(layout::devices)) {
        const std::string name = entry.path().filename();
        const auto minor = numberAfter(layout::nodePrefix, name);
        const bool isOurs = minor || name.starts_with(layout::hiddenNodePrefix);
        if (isOurs && isBlockDevice(entry) && !(minor && minors.contains(*minor))) {
            removeFile(entry.path());
        }
    }
}

} // namespace tolvubd
