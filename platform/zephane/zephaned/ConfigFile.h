#pragma once

#include "os/FileDescriptor.h"
#include "zephane/zephaned/Config.h"

#include <string>

namespace zephane {

/// The configuration file, which holds secrets, so only its owner may read it.
/// Owns:    nothing.
/// Threads: any; processes that change the file must hold `lock`.
/// Fails:   ConfigError; the file is unchanged then.
class ConfigFile {
public:
    explicit ConfigFile(std::string path) : path(std::move(path)) {}

    [[nodiscard]] const std::string& name() const { return path; }
    [[nodiscard]] bool exists() const;
    /// The path whose owner new files get: the file, or its directory while there is no file.
    [[nodiscard]] std::string ownerPath() const { return exists() ? path : directory(); }
    /// Throws ConfigError for a file that others may read or write.
    [[nodiscard]] Config load() const;
    /// Replaces the file as a whole, durably, and keeps its owner. A new file gets the owner of its
    /// directory, whoever creates it.
    void save(const Config& config) const;
    /// Excludes other editors as long as the returned descriptor is open. Waits up to ten seconds for them.
    [[nodiscard]] os::FileDescriptor lock() const;

private:
    [[nodiscard]] std::string directory() const;
    [[noreturn]] void fail(const std::string& what) const;

    std::string path;
};

} // namespace zephane
