#include "db/DataProvider.h"
#include "unit/db/WriteStream.h"

#include <cstdlib>
#include <unistd.h>

/// usage: db_writer DIRECTORY FIRST
///
/// Performs the stream of writes, starting with number FIRST, until it is killed. Writes the number of each
/// completed write to standard output, as 8 bytes.
int main(int argumentCount, char** arguments) {
    if (argumentCount != 3) {
        return 2;
    }
    agent::info::Logger logger{agent::info::PrinterFunction()};
    agent::UUIDGenerator generator;
    agent::db::DataProvider provider(logger, generator, arguments[1]);
    provider.validateProvider();
    for (std::uint64_t number = std::strtoull(arguments[2], nullptr, 10);; ++number) {
        agent::test::stream::perform(provider, number);
        if (::write(STDOUT_FILENO, &number, sizeof number) != sizeof number) {
            return 1;
        }
    }
}
