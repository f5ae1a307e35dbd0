#pragma once

#include "os/FileDescriptor.h"

#include <chrono>
#include <string>

namespace bekctl {

/// A connection to a TCP port, made within the time that is given to each of the host's addresses. Throws
/// std::runtime_error with the system's reason.
os::FileDescriptor connectTo(const std::string& host, unsigned short port,
                             std::chrono::milliseconds patience);

} // namespace bekctl
