#pragma once

#include "os/FileDescriptor.h"
#include "zephane/zephaned/Config.h"

#include <string>

namespace zephane {

/// The file of the configuration, which holds secrets and so is its owner's alone.
/// Owns:    nothing.
/// Threads: any; edits of several processes take turns by `lock`.
/// Fails:   ConfigError; the file is as it was then.
class ConfigFile {
public:
    explicit ConfigFile(std::string path) : path(std::move(path)) {}

    [[nodiscard]] const std::string& name() const { return path; }
    [[nodiscard]] bool exists() const;
    /// What belongs to whom it belongs: the file, or its directory while there is none.
    [[nodiscard]] std::string ownerPath() const { return exists() ? path : directory(); }
    /// Refuses a file that others may read or write.
    [[nodiscard]] Config load() const;
    /// Replaces it as a whole, durably, and leaves it to whom it belonged; a new one belongs to whom its
    /// directory belongs, whoever makes it.
    void save(const Config& config) const;
    /// Keeps other editors out for as long as what it returns is there. Waits ten seconds for them.
    [[nodiscard]] os::FileDescriptor lock() const;

private:
    [[nodiscard]] std::string directory() const;
    [[noreturn]] void fail(const std::string& what) const;

    std::string path;
};

} // namespace zephane
