#pragma once

#include "Table.h"

namespace tolvubd {

inline constexpr const char* driverVersion = "0.10.0";

/// The devices in the form in which a kernel driver shows them.
std::string statusText(const Table& table);

/// Writes the status files, if they don't show this already.
void publish(const Table& table);

} // namespace tolvubd
