#include "core/transport/PendingTransport.h"

#include <cerrno>

namespace agent::core {

namespace {

std::int64_t refuse() {
    errno = ENOTCONN;
    return -1;
}

} // namespace

std::int64_t PendingTransport::seek(std::int64_t /*offset*/, int /*whence*/) {
    return refuse();
}

std::int64_t PendingTransport::write(const void* /*data*/, std::uint64_t /*length*/) {
    return refuse();
}

bool PendingTransport::connect(bool /*diffMerge*/) {
    return false;
}

std::int64_t PendingTransport::read(void* /*data*/, std::uint64_t /*length*/) {
    return refuse();
}

void PendingTransport::disconnect() {}

bool PendingTransport::punchHole(std::uint64_t /*length*/) {
    return false;
}

bool PendingTransport::supportsHolePunching() const {
    return false;
}

} // namespace agent::core
