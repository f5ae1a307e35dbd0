#pragma once

#include "zephane/zephaned/Config.h"

#include <string>

namespace zephane {

/// Names as shown in messages.
std::string describe(const wire::ImageName& image);
std::string describe(const Address& address);

} // namespace zephane
