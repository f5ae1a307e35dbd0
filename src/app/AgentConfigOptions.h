#pragma once

#include "common/config/ConfigOptions.h"

namespace agent::app {

/// All options that can be set, with the types, defaults and bounds that docs/operations.md lists.
ConfigOptions agentConfigOptions();

} // namespace agent::app
