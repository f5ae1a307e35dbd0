#include "os/FileDescriptor.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace os {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        descriptor = other.release();
    }
    return *this;
}

void FileDescriptor::reset() noexcept {
    if (descriptor < 0) {
        return;
    }
    const int savedErrno = errno;
    ::close(descriptor);
    descriptor = -1;
    errno = savedErrno;
}

int FileDescriptor::release() noexcept {
    return std::exchange(descriptor, -1);
}

} // namespace os
