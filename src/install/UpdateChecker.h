#pragma once

#include "common/IService.h"
#include "core/IEngine.h"
#include "db/IDataProvider.h"
#include "info/IDriverInfoProvider.h"
#include "info/log/Logger.h"

#include <string>

namespace agent::install {

/// A placeholder for a service that periodically checks for updates. On Linux, updates come as packages of
/// the distribution, so this class checks nothing; its constructor takes what a real check would need.
/// Owns:    nothing.
/// Threads: any thread may call it; it has no thread of its own.
/// Fails:   never.
class UpdateChecker : public IService {
public:
    UpdateChecker(info::Logger& logger, db::IDataProvider& dataProvider, core::IEngine& engine,
                  const std::string& updateUrl, const std::string& version,
                  const IDriverInfoProvider& driverInfo);

    void start() override {}
    void stop() override {}

private:
    [[maybe_unused]] db::IDataProvider& dataProvider;
    [[maybe_unused]] core::IEngine& engine;
};

} // namespace agent::install
