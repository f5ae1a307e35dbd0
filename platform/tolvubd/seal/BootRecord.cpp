#include "seal/BootRecord.h"

namespace tolvubd {} // namespace tolvubd
