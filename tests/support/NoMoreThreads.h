#pragma once

#include <cstddef>
#include <pthread.h>
#include <stdexcept>

namespace agent::test {

/// While an object exists, creating a thread fails in this process: the default stack size is larger than the
/// address space.
class NoMoreThreads {
public:
    NoMoreThreads() {
        pthread_getattr_default_np(&former);
        pthread_attr_t impossible;
        pthread_getattr_default_np(&impossible);
        constexpr std::size_t stack = std::size_t{1} << 60U;
        const bool isSet = pthread_attr_setstacksize(&impossible, stack) == 0 &&
                           pthread_setattr_default_np(&impossible) == 0;
        pthread_attr_destroy(&impossible);
        if (!isSet) {
            throw std::runtime_error("the size of stacks can't be set");
        }
    }
    NoMoreThreads(const NoMoreThreads&) = delete;
    NoMoreThreads& operator=(const NoMoreThreads&) = delete;
    ~NoMoreThreads() {
        pthread_setattr_default_np(&former);
        pthread_attr_destroy(&former);
    }

private:
    pthread_attr_t former{};
};

} // namespace agent::test
