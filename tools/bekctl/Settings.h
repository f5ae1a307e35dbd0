#pragma once

#include "common/config/IConfigData.h"
#include "info/log/Logger.h"

#include <memory>
#include <string>
#include <vector>

namespace bekctl {

/// The agent's settings, as its next start will read them.
/// Owns:    what it has read of the file.
/// Threads: one at a time.
/// Fails:   never: problem() says why the file can't be used.
class Settings {
public:
    explicit Settings(const std::string& path);
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;
    ~Settings();

    /// Why the file can't be used; empty if it can. If it can't, all settings have their defaults.
    [[nodiscard]] const std::string& problem() const { return readError; }
    /// The lines that the agent would log about values that don't fit.
    [[nodiscard]] const std::vector<std::string>& complaints() const { return logged; }
    [[nodiscard]] const agent::IConfig& config() const;

private:
    struct Stored;
    std::vector<std::string> logged;
    agent::info::Logger logger;
    std::string readError;
    std::unique_ptr<Stored> stored;
};

} // namespace bekctl
