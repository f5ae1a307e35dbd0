#include "seal/Fingerprint.h"

namespace tolvubd {} // namespace tolvubd
