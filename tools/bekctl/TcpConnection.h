#pragma once

#include "os/FileDescriptor.h"

#include <chrono>
#include <string>

namespace bekctl {

/// Connects to a TCP port. `timeout` is the time limit for each of the host's addresses. Throws
/// std::runtime_error with the system's reason.
os::FileDescriptor connectTo(const std::string& host, unsigned short port, std::chrono::milliseconds timeout);

} // namespace bekctl
