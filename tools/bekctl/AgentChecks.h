#pragma once

#include "AgentFacts.h"
#include "Check.h"
#include "Database.h"
#include "DriverFacts.h"
#include "Identity.h"
#include "Settings.h"

#include <ctime>
#include <optional>
#include <string>

/// Checks of the agent itself: what would make a backup fail.
namespace bekctl {

Findings checkAgent(const AgentFacts& agent);
/// `problem` says why there is no database.
Findings checkDatabase(const std::optional<Database>& database, const std::string& problem);
Findings checkIdentity(const Identity& identity, std::time_t now);
Findings checkSettings(const Settings& settings);
Findings checkDriver(const DriverFacts& driver);

} // namespace bekctl
