#pragma once

#include "common/config/ConfigOptions.h"

namespace agent::app {

/// The whole table of settable options, with the types, defaults and bounds that docs/operations.md lists.
ConfigOptions agentConfigOptions();

} // namespace agent::app
