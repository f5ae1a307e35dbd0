#include "install/UpdateChecker.h"

namespace agent::install {

UpdateChecker::UpdateChecker(info::Logger& /*logger*/, db::IDataProvider& dataProvider, core::IEngine& engine,
                             const std::string& /*updateUrl*/, const std::string& /*version*/,
                             const IDriverInfoProvider& /*driverInfo*/)
    : dataProvider(dataProvider), engine(engine) {}

} // namespace agent::install
