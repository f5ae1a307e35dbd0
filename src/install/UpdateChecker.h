#pragma once

#include "common/IService.h"
#include "core/IEngine.h"
#include "db/IDataProvider.h"
#include "info/IDriverInfoProvider.h"
#include "info/log/Logger.h"

#include <string>

namespace agent::install {

/// The place of a periodic update check among the services. On this system updates come with the packages of
/// the distribution, so nothing is checked; the slot and what it would be given are kept.
/// Owns:    nothing.
/// Threads: none of its own.
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
