#pragma once

#include "Audit.h"
#include "tools/common/Json.h"

#include <string>

namespace audit {

std::string textOf(const Request& request, const Result& result);
tools::Json jsonOf(const Request& request, const Result& result);

} // namespace audit
