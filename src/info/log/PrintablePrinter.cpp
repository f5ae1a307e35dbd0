#include "info/log/PrintablePrinter.h"

#include "common/PeerText.h"

#include <string_view>
#include <utility>

namespace agent::info {

PrintablePrinter::PrintablePrinter(PrinterFunction printer) : printer(std::move(printer)) {}

void PrintablePrinter::print(const std::string& message, int level, LogTime time) {
    std::string_view text = message;
    const bool hasEnd = text.ends_with('\n');
    text.remove_suffix(hasEnd ? 1 : 0);
    printer(printable(shortened(text, longestMessage)) + (hasEnd ? "\n" : ""), level, time);
}

} // namespace agent::info
