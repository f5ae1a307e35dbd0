#include "info/log/FilteredPrinter.h"

#include <utility>

namespace agent::info {

FilteredPrinter::FilteredPrinter(FilterFunction filter, PrinterFunction printer)
    : filter(std::move(filter)), printer(std::move(printer)) {}

void FilteredPrinter::print(const std::string& message, int level, LogTime time) {
    if (filter(message, level, time)) {
        printer(message, level, time);
    }
}

} // namespace agent::info
