#include "info/log/DecoratedPrinter.h"

#include <utility>

namespace agent::info {

DecoratedPrinter::DecoratedPrinter(IDecorator& decorator, PrinterFunction printer)
    : decorator(&decorator), printer(std::move(printer)) {}

void DecoratedPrinter::print(const std::string& message, int level, LogTime time) {
    const std::string decorated = decorator->decorate(message, level, time);
    if (printer) {
        printer(decorated, level, time);
    }
}

} // namespace agent::info
