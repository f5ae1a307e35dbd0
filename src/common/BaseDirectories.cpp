#include "common/BaseDirectories.h"

#include <cstdlib>

namespace agent::dir {

Path root() {
    return {};
}

Path base() {
    return root() / "etc/tolvu/" / "bek";
}

Path temporary() {
    const char* fromEnvironment = std::getenv("TMPDIR");
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? Path(fromEnvironment) : Path("/tmp");
}

Path testing() {
    return temporary() / "tolvu/agent/testing";
}

} // namespace agent::dir
