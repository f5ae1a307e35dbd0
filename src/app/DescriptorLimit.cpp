#include "app/DescriptorLimit.h"

#include <algorithm>
#include <sys/resource.h>

namespace agent::app {

void raiseDescriptorLimit() {
    constexpr rlim_t enough = 16'384;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < enough) {
        limit.rlim_cur = std::min(enough, limit.rlim_max);
        ::setrlimit(RLIMIT_NOFILE,
                    &limit); // can't fail up to the hard limit; the agent works without it, too
    }
}

} // namespace agent::app
