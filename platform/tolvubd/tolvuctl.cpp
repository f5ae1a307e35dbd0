#include "Driver.h"
#include "StateStore.h"
#include "boot/Adoption.h"
#include "boot/Closing.h"
#include "boot/Reinsertion.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <exception>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

using tolvubd::Device;
using tolvubd::Driver;
using tolvubd::Mode;
using tolvubd::Stage;
using Arguments = std::vector<std::string>;

constexpr const char* usage =
    "usage: tolvuctl list                                  show the devices\n"
    "       tolvuctl destroy MINOR                         forget a device and what is kept of it\n"
    "       tolvuctl reload-incremental DEVICE COW MINOR   track on as before the machine was restarted;\n"
    "                                                      COW is relative to the mount point\n"
    "       tolvuctl reload-snapshot DEVICE COW MINOR      show a snapshot again that was there before\n"
    "       tolvuctl cleanup                               forget the devices that no reload has given "
    "back\n"
    "       tolvuctl adopt PARTITION                       have the root file system's partition on a "
    "device\n"
    "                                                      that can be tracked, from the next start on\n"
    "       tolvuctl adopt --undo                          have it as it was, from the next start on\n"
    "While the machine starts and stops:\n"
    "       tolvuctl early ROOT                            before the root file system is mounted; prints "
    "the\n"
    "                                                      device to mount instead, if there is another\n"
    "       tolvuctl reinsert NODE|--all                   track a volume on, before it is mounted\n"
    "       tolvuctl started                               once all is mounted: remember that it was\n"
    "       tolvuctl close [--wait]                        seal what nobody writes any more, or won't in a "
    "minute\n";

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

/// How the device is tracked, with the reason if it is captured or can't be trusted.
std::string trackedBy(const Device& device) {
    if (!device.layers) {
        return device.whyCaptured.empty() ? "capture" : "capture: " + device.whyCaptured;
    }
    if (device.layers->error != 0) {
        return std::string("device-mapper, not to be trusted: ") +
               std::generic_category().message(device.layers->error);
    }
    return "device-mapper: linear table";
}

void print(const Device& device, const std::string& state) {
    std::cout << std::right << std::setw(5) << device.minor << "  " << std::left << std::setw(10) << state
              << std::setw(19) << device.blockDevice << ' ' << std::setw(11) << device.cowFile << ' '
              << device.snapshot << "  " << std::setw(14) << device.size << trackedBy(device) << '\n';
}

/// A session checks the devices and records their errors. If another session is running, that session does
/// so.
void checkDevices() {
    try {
        const Driver session(tolvubd::Busy::fail);
    } catch (const std::system_error& error) {
        if (error.code().value() != EWOULDBLOCK) {
            throw;
        }
    }
}

void list() {
    checkDevices();
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

void reload(Mode mode, const Arguments& arguments) {
    const std::uint32_t minor = minorFrom(arguments.at(2));
    Driver().reload(mode, minor, arguments.at(0), arguments.at(1), 0);
}

void reinsert(const std::string& node) {
    if (node == "--all") {
        tolvubd::reinsertAll(Stage::afterRoot);
    } else {
        tolvubd::reinsert(node, Stage::afterRoot);
    }
}

void startEarly(const std::string& root) {
    if (const auto node = tolvubd::createAdoptedDevice(root)) {
        std::cout << *node << std::endl;
    }
    tolvubd::reinsertAll(Stage::beforeRoot);
}

void adopt(const std::string& partition) {
    if (partition == "--undo") {
        tolvubd::undoAdoption();
    } else {
        tolvubd::adopt(partition);
    }
}

void close(const std::string& option) {
    constexpr std::chrono::seconds patience{60};
    if (!option.empty() && option != "--wait") {
        throw UsageError("unknown option: " + option);
    }
    tolvubd::closeVolumes(option.empty() ? std::chrono::seconds::zero() : patience);
}

struct Command {
    const char* name;
    std::size_t arguments;
    void (*run)(const Arguments& arguments);
};

constexpr auto commands = std::to_array<Command>({
    {"list", 0, [](const Arguments& /*none*/) { list(); }},
    {"cleanup", 0, [](const Arguments& /*none*/) { Driver().forgetAsleep(); }},
    {"destroy", 1, [](const Arguments& arguments) { Driver().destroy(minorFrom(arguments[0])); }},
    {"reload-incremental", 3, [](const Arguments& arguments) { reload(Mode::tracking, arguments); }},
    {"reload-snapshot", 3, [](const Arguments& arguments) { reload(Mode::snapshot, arguments); }},
    {"adopt", 1, [](const Arguments& arguments) { adopt(arguments[0]); }},
    {"early", 1, [](const Arguments& arguments) { startEarly(arguments[0]); }},
    {"reinsert", 1, [](const Arguments& arguments) { reinsert(arguments[0]); }},
    {"started", 0, [](const Arguments& /*none*/) { const Driver session; }},
    {"close", 0, [](const Arguments& /*none*/) { close(""); }},
    {"close", 1, [](const Arguments& arguments) { close(arguments[0]); }},
});

void run(const Arguments& words) {
    const auto* const command = std::ranges::find_if(commands, [&](const Command& one) {
        return words.size() == one.arguments + 1 && words[0] == one.name;
    });
    if (command == std::end(commands)) {
        throw UsageError("unknown command");
    }
    command->run({words.begin() + 1, words.end()});
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
