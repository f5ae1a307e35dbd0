#pragma once

#include "info/log/Logger.h"
#include "info/log/StoredLevelFilter.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// POST /logLevel: sets the threshold of the log. The appliance counts the other way round: its "severity"
/// is 0 for everything and 6 for nothing.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws exception::bad_request for a body without a number, and passes on the store's exception if
///          the threshold can't be saved.
class LogLevel {
public:
    LogLevel(info::Logger& logger, info::StoredLevelFilter& filter);
    APIResponse operator()(const std::string& body);

private:
    info::Logger& logger;
    info::StoredLevelFilter& filter;
};

} // namespace agent::ordak
