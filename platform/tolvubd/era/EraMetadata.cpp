#include "era/EraMetadata.h"

namespace tolvubd {} // namespace tolvubd
