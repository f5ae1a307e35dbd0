#include "HiddenNode.h"

#include "Failure.h"
#include "FileAccess.h"
#include "Layout.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>

namespace tolvubd {

namespace {

std::string hiddenPath(dev_t number) {
    return std::string(layout::devices) + "/" + layout::hiddenNodePrefix + "-" +
           std::to_string(major(number)) + "-" + std::to_string(minor(number));
}

} // namespace

HiddenNode::HiddenNode(dev_t number) : path(hiddenPath(number)) {
    removeFile(path);
    checked(::mknod(path.c_str(), S_IFBLK | ownerOnly, number), "make " + path);
}

HiddenNode::~HiddenNode() {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

os::FileDescriptor HiddenNode::open(int flags) const {
    return openFile(path, flags);
}

void HiddenNode::rename(const std::string& to) const {
    checked(::rename(path.c_str(), to.c_str()), "rename to " + to);
}

} // namespace tolvubd
