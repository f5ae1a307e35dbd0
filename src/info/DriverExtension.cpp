#include "info/DriverExtension.h"

#include "common/PosixError.h"

#include <cerrno>
#include <tolvubd.h>

// The kernel driver's library doesn't define these symbols; their addresses are then null.
// They are declared again to add the attribute, and keep the names of the C interface.
// NOLINTBEGIN(readability-redundant-declaration,readability-identifier-naming)
extern "C" {
__attribute__((weak)) std::int32_t tolvubd_check_snapshot(std::uint32_t minor);
__attribute__((weak)) const char* const* tolvubd_get_own_files();
__attribute__((weak)) std::int32_t tolvubd_get_room(const char* block_device, std::uint64_t* bytes);
}
// NOLINTEND(readability-redundant-declaration,readability-identifier-naming)

namespace agent::info {

int DriverExtension::checkSnapshot(std::int32_t minor) const {
    if (tolvubd_check_snapshot == nullptr || tolvubd_check_snapshot(static_cast<std::uint32_t>(minor)) == 0) {
        return 0;
    }
    return errno == 0 ? EIO : errno;
}

std::vector<std::string> DriverExtension::getDriverFiles() const {
    std::vector<std::string> names;
    if (tolvubd_get_own_files != nullptr) {
        for (const char* const* name = tolvubd_get_own_files(); *name != nullptr; ++name) {
            names.emplace_back(*name);
        }
    }
    return names;
}

std::uint64_t DriverExtension::getSnapshotSpace(const std::string& blockDevice) const {
    std::uint64_t bytes = 0;
    if (tolvubd_get_room != nullptr && tolvubd_get_room(blockDevice.c_str(), &bytes) != 0) {
        throw PosixError("The driver can't tell what room it needs on " + blockDevice, errno);
    }
    return bytes;
}

} // namespace agent::info
