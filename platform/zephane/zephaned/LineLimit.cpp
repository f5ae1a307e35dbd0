#include "zephane/zephaned/LineLimit.h"

#include <utility>

namespace zephane {

LineLimit::Verdict LineLimit::ask(Clock::time_point now) {
    const os::Lock lock(mutex);
    if (written == 0 || now - begin >= span) {
        begin = now;
        written = 0;
    }
    if (written == lines) {
        ++withheld;
        return {};
    }
    ++written;
    return {true, std::exchange(withheld, 0)};
}

} // namespace zephane
