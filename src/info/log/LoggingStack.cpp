#include "info/log/LoggingStack.h"

namespace agent::info {

namespace {

/// Returns a function object that calls `print` of `printer`, which must outlive it.
template <typename Printer>
auto printing(Printer& printer) {
    return [&printer](const std::string& message, int level, LogTime time) {
        return printer.print(message, level, time);
    };
}

FilterFunction passing(const StoredLevelFilter& filter) {
    return [&filter](const std::string& message, int level, LogTime time) {
        return filter.pass(message, level, time);
    };
}

} // namespace

LoggingStack::LoggingStack()
    : multiDecorator({&dateDecorator, &tagDecorator}),
      failsafePrinter({printing(filePrinter), printing(systemPrinter)}),
      filteredPrinter(passing(levelFilter), printing(failsafePrinter)),
      multiPrinter({printing(screenPrinter), printing(filteredPrinter)}),
      decoratedPrinter(multiDecorator, printing(multiPrinter)),
      escapingPrinter(multiDecorator, printing(decoratedPrinter)),
      logger(printing(escapingPrinter),
             [this](int level) { return levelFilter.threshold() >= level || ScreenPrinter::isWatched(); }),
      securityFilteredPrinter(passing(levelFilter), printing(filePrinter)),
      securityMultiPrinter(
          {printing(screenPrinter), printing(systemPrinter), printing(securityFilteredPrinter)}),
      securityDecoratedPrinter(multiDecorator, printing(securityMultiPrinter)),
      securityEscapingPrinter(multiDecorator, printing(securityDecoratedPrinter)),
      securityLogger(printing(securityEscapingPrinter)) {}

} // namespace agent::info
