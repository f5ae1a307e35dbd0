#pragma once

#include "support/TestDirectory.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace zephane::test {

/// An nbdkit of a test's own on a Unix socket, which notes what it is asked for. Ends with the object.
class ZephaneEngine {
public:
    /// Those of the plugin and of filters; std::runtime_error if it doesn't come up.
    explicit ZephaneEngine(const std::vector<std::string>& arguments);
    ZephaneEngine(const ZephaneEngine&) = delete;
    ZephaneEngine& operator=(const ZephaneEngine&) = delete;
    ~ZephaneEngine();

    [[nodiscard]] std::string socket() const { return directory / "socket"; }
    /// What has been asked for so far, in order: "Write 0x0 0x10000", "Zero 0x0 0x10000", "Read …", "Flush".
    [[nodiscard]] std::vector<std::string> requests() const;
    /// At once, as a crash would.
    void kill();

private:
    agent::test::TestDirectory directory;
    pid_t process = -1;
};

} // namespace zephane::test
