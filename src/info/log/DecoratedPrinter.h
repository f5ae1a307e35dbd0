#pragma once

#include "info/log/IDecorator.h"
#include "info/log/PrinterFunction.h"

namespace agent::info {

/// Decorates each message and passes it on to another printer.
/// Owns:    the printer function; the decorator must outlive it.
/// Threads: the logger calls `print` under its mutex.
/// Fails:   `print` throws what the printer throws.
class DecoratedPrinter {
public:
    DecoratedPrinter(IDecorator& decorator, PrinterFunction printer);
    void print(const std::string& message, int level, LogTime time);

private:
    IDecorator* decorator;
    PrinterFunction printer;
};

} // namespace agent::info
