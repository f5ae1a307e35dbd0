#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace agent::info {

/// When a message was logged: the system clock, in nanoseconds since the epoch.
using LogTime = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

/// Takes one message at its level and time. Printer objects have no common base: they are joined by these
/// function objects, usually a std::ref to the object that prints.
using PrinterFunction = std::function<void(const std::string& message, int level, LogTime time)>;

/// As PrinterFunction; true means that the message has reached its sink.
using FalliblePrinterFunction = std::function<bool(const std::string& message, int level, LogTime time)>;

/// Whether messages of this level reach anybody.
using LevelFunction = std::function<bool(int level)>;

/// True lets the message pass.
using FilterFunction = std::function<bool(const std::string& message, int level, LogTime time)>;

} // namespace agent::info
