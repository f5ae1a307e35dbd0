#include "core/fs/FileSystemKinds.h"

#include "core/fs/ext/EXTKind.h"
#include "core/fs/fat/FATKind.h"
#include "core/fs/hfs/HFSKind.h"
#include "core/fs/ntfs/NTFSKind.h"
#include "core/fs/xfs/XFSKind.h"

#include <array>

namespace agent::core::fs {

std::span<const FileSystemKind> fileSystemKinds() {
    static constexpr std::array kinds{ntfsKind, fatKind, extKind, hfsKind, xfsKind};
    return kinds;
}

} // namespace agent::core::fs
