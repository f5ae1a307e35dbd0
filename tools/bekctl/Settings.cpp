#include "Settings.h"

#include "app/AgentConfigOptions.h"
#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "tools/common/Text.h"

#include <exception>

namespace bekctl {

using tools::plain;

struct Settings::Stored {
    Stored(agent::info::Logger& logger, const std::string& path)
        : provider(path), config(logger, provider, agent::app::agentConfigOptions()) {}

    agent::JSONConfigDataProvider provider;
    agent::Config config;
};

Settings::Settings(const std::string& path)
    : logger([this](const std::string& message, int /*level*/, agent::info::LogTime /*time*/) {
          logged.push_back(plain(message.substr(0, message.find('\n'))));
      }) {
    try {
        stored = std::make_unique<Stored>(logger, path);
    } catch (const std::exception& error) {
        readError = plain(error.what());
        stored = std::make_unique<Stored>(logger, ""); // without a file, all settings have their defaults
    }
}

Settings::~Settings() = default;

const agent::IConfig& Settings::config() const {
    return stored->config;
}

} // namespace bekctl
