#pragma once

#include "common/Path.h"

/// The fixed places of the agent. Each is computed when asked for, never cached, so that a change of the
/// environment shows at once.
namespace agent::dir {

/// The empty path: a join to it gives an absolute path.
Path root();

/// /etc/tolvu/bek: configuration, database, logs, certificates and scripts live below it.
Path base();

/// The value of TMPDIR if it is set and not empty, else /tmp.
Path temporary();

/// The place below the temporary directory that tests may fill and empty.
Path testing();

} // namespace agent::dir
