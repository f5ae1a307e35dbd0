#pragma once

#include "support/TestDirectory.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace zephane::test {

/// A test's own nbdkit on a Unix socket, which logs its requests. The destructor kills it.
/// Owns:    the nbdkit process, its socket and its log.
/// Threads: one.
/// Fails:   the constructor throws std::runtime_error if nbdkit doesn't start.
class NbdkitProcess {
public:
    /// Takes the arguments for the plugin and filters. Throws std::runtime_error if nbdkit doesn't start.
    explicit NbdkitProcess(const std::vector<std::string>& arguments);
    NbdkitProcess(const NbdkitProcess&) = delete;
    NbdkitProcess& operator=(const NbdkitProcess&) = delete;
    ~NbdkitProcess();

    [[nodiscard]] std::string socket() const { return directory / "socket"; }
    /// The requests so far, in order: "Write 0x0 0x10000", "Zero 0x0 0x10000", "Read …", "Flush".
    [[nodiscard]] std::vector<std::string> requests() const;
    /// Kills the process at once, as a crash would.
    void kill();

private:
    agent::test::TestDirectory directory;
    pid_t process = -1;
};

} // namespace zephane::test
