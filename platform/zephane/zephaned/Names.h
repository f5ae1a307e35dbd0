#pragma once

#include "zephane/zephaned/Config.h"

#include <string>

namespace zephane {

/// As they stand in lines for people.
std::string describe(const wire::ImageName& image);
std::string describe(const Address& address);

} // namespace zephane
