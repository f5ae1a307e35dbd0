#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace agent::info {

/// When a message was logged: the system clock, in nanoseconds since the epoch.
using LogTime = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

/// Prints one message. Printer classes have no common base class: these function objects connect them.
using PrinterFunction = std::function<void(const std::string& message, int level, LogTime time)>;

/// Like PrinterFunction, but returns whether the message was written.
using FalliblePrinterFunction = std::function<bool(const std::string& message, int level, LogTime time)>;

/// Returns whether messages of this level reach any output.
using LevelFunction = std::function<bool(int level)>;

/// True lets the message pass.
using FilterFunction = std::function<bool(const std::string& message, int level, LogTime time)>;

} // namespace agent::info
