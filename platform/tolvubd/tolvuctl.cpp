#include "Driver.h"
#include "StateStore.h"

#include <charconv>
#include <cstring>
#include <exception>
#include <iomanip>
#include <iostream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using tolvubd::Device;
using tolvubd::Driver;
using tolvubd::Mode;
using Arguments = std::vector<std::string>;

constexpr const char* usage =
    "usage: tolvuctl list                                  show the devices\n"
    "       tolvuctl destroy MINOR                         forget a device and what is kept of it\n"
    "       tolvuctl reload-incremental DEVICE COW MINOR   track on as before the machine was restarted;\n"
    "                                                      COW is relative to the mount point\n"
    "       tolvuctl reload-snapshot DEVICE COW MINOR      show a snapshot again that was there before\n"
    "       tolvuctl cleanup                               forget the devices that no reload has given "
    "back\n";

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::uint32_t minorFrom(const std::string& text) {
    std::uint32_t minor = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, minor);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
        throw UsageError("not a minor number: " + text);
    }
    return minor;
}

/// By what a device is tracked, and why.
std::string trackedBy(const Device& device) {
    if (!device.layers) {
        return device.reason.empty() ? "capture" : "capture: " + device.reason;
    }
    if (device.layers->error != 0) {
        return std::string("device-mapper, not to be trusted: ") + std::strerror(device.layers->error);
    }
    return "device-mapper: linear table";
}

void print(const Device& device, const std::string& state) {
    std::cout << std::right << std::setw(5) << device.minor << "  " << std::left << std::setw(10) << state
              << std::setw(20) << device.blockDevice << std::setw(12) << device.cowFile << device.snapshot
              << "  " << std::setw(14) << device.size << trackedBy(device) << '\n';
}

void list() {
    const tolvubd::Table table = tolvubd::observeTable();
    const bool live = tolvubd::isLive(table);
    std::cout << "minor  state     device              CoW file    snapshot                              "
                 "bytes         tracked by\n";
    for (const Device& device : table.devices) {
        const bool tracking = device.mode == Mode::tracking;
        print(device, !live ? "asleep" : tracking ? "tracking" : "snapshot");
    }
    for (const Device& device : table.asleep) {
        print(device, "asleep");
    }
}

void run(const Arguments& arguments) {
    const std::string command = arguments.empty() ? "" : arguments[0];
    const std::size_t count = arguments.size();
    if (command == "list" && count == 1) {
        list();
    } else if (command == "cleanup" && count == 1) {
        Driver().forgetAsleep();
    } else if (command == "destroy" && count == 2) {
        const std::uint32_t minor = minorFrom(arguments[1]);
        Driver().destroy(minor);
    } else if ((command == "reload-incremental" || command == "reload-snapshot") && count == 4) {
        const Mode mode = command == "reload-snapshot" ? Mode::snapshot : Mode::tracking;
        const std::uint32_t minor = minorFrom(arguments[3]);
        Driver().reload(mode, minor, arguments[1], arguments[2], 0);
    } else {
        throw UsageError("unknown command");
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::span<char*> words(argv, static_cast<std::size_t>(argc));
    try {
        run({words.begin() + (words.empty() ? 0 : 1), words.end()});
        return 0;
    } catch (const UsageError& error) {
        std::cerr << "tolvuctl: " << error.what() << '\n' << usage;
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "tolvuctl: " << error.what() << '\n';
        return 1;
    }
}
