#pragma once

#include "info/log/DateDecorator.h"
#include "info/log/DecoratedPrinter.h"
#include "info/log/EscapingPrinter.h"
#include "info/log/FailsafePrinter.h"
#include "info/log/FilePrinter.h"
#include "info/log/FilteredPrinter.h"
#include "info/log/Logger.h"
#include "info/log/MultiDecorator.h"
#include "info/log/MultiPrinter.h"
#include "info/log/ScreenPrinter.h"
#include "info/log/StoredLevelFilter.h"
#include "info/log/SystemPrinter.h"
#include "info/log/TagDecorator.h"

namespace agent::info {

/// All loggers, printers and decorators of the process, connected once at the start.
///
///   logger ---------> printable -> date+tag -+-> screen
///                                            +-> level filter --> file, or the system log where the file
///                                                                 fails
///   securityLogger -> printable -> date+tag -+-> screen
///                                            +-> system log
///                                            +-> level filter --> file
///
/// Owns:    every printer and decorator; they refer to each other, so the object can't be moved.
/// Threads: any thread may use both loggers. Each has its own mutex, and both may append to one file at once.
/// Fails:   never; a sink that fails is reported on standard error.
class LoggingStack {
public:
    LoggingStack();
    LoggingStack(const LoggingStack&) = delete;
    LoggingStack& operator=(const LoggingStack&) = delete;
    ~LoggingStack() = default;

private:
    // Declared in the order in which they refer to each other.
    DateDecorator dateDecorator;
    TagDecorator tagDecorator;
    MultiDecorator multiDecorator;
    FilePrinter filePrinter;
    SystemPrinter systemPrinter;
    FailsafePrinter failsafePrinter;

public:
    StoredLevelFilter levelFilter;

private:
    FilteredPrinter filteredPrinter;
    ScreenPrinter screenPrinter;
    MultiPrinter multiPrinter;
    DecoratedPrinter decoratedPrinter;
    EscapingPrinter escapingPrinter;

public:
    Logger logger;

private:
    FilteredPrinter securityFilteredPrinter;
    MultiPrinter securityMultiPrinter;
    DecoratedPrinter securityDecoratedPrinter;
    EscapingPrinter securityEscapingPrinter;

public:
    Logger securityLogger;

    /// Parses lines that either logger has written.
    IDecorator& decorator() noexcept { return multiDecorator; }
};

} // namespace agent::info
