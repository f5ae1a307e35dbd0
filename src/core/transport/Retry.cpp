#include "core/transport/Retry.h"

#include <cerrno>
#include <ctime>

namespace agent::core {

void sleepBeforeRetry() {
    timespec left{1, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace agent::core
