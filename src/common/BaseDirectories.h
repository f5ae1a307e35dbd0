#pragma once

#include "common/Path.h"

/// The agent's directories. Nothing is cached, so that a change of the environment takes effect at once.
namespace agent::dir {

/// The empty path: joining a part to it gives an absolute path.
Path root();

/// /etc/tolvu/bek: configuration, database, logs, certificates and scripts live below it.
Path base();

/// The value of TMPDIR if it is set and not empty, else /tmp.
Path temporary();

/// The subdirectory of the temporary directory that tests may fill and empty.
Path testing();

} // namespace agent::dir
