#include "DirectIo.h"

#include <fcntl.h>

namespace restore {

bool disableDirectIo(const os::FileDescriptor& file) {
    const int flags = ::fcntl(file.get(), F_GETFL);
    return flags >= 0 && (flags & O_DIRECT) != 0 && ::fcntl(file.get(), F_SETFL, flags & ~O_DIRECT) == 0;
}

} // namespace restore
