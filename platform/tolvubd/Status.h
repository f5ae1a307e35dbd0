#pragma once

#include "Table.h"

namespace tolvubd {

inline constexpr const char* driverVersion = "0.10.0";

/// The devices as JSON, in the form in which a kernel driver shows them.
std::string statusText(const Table& table);

/// Writes the status files, unless they are up to date.
void publish(const Table& table);

} // namespace tolvubd
