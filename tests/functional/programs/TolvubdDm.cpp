// Calls, from the shell, the parts of libtolvubd that use the kernel's device-mapper. Devices are named by
// their UUIDs. A failure is printed, and its errno is the exit status.
//
//     TolvubdDm number MAJOR:MINOR
//     TolvubdDm prefix PREFIX
//     TolvubdDm create NAME UUID
//     TolvubdDm load UUID                    reads one target per line: START LENGTH TYPE PARAMETERS
//     TolvubdDm table|status|state|size|clear|remove|suspend|suspend-only UUID
//     TolvubdDm resume UUID shown|hidden
//     TolvubdDm message UUID TEXT
//     TolvubdDm hold UUID [INSIDE...]        says when it holds the device; ends after a line of input
//     TolvubdDm watch VOLUME SNAPSHOT

#include "Failure.h"
#include "HoldGuard.h"
#include "dm/Mapper.h"
#include "dm/SuspendedDevice.h"
#include "dm/Watcher.h"

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <sys/sysmacros.h>
#include <system_error>
#include <vector>

namespace {

namespace dm = tolvubd::dm;
using Words = std::vector<std::string>;

dm::Device named(const std::string& uuid) {
    const auto device = dm::findByUuid(uuid);
    if (!device) {
        tolvubd::fail(ENXIO, "find " + uuid);
    }
    return *device;
}

void print(const dm::Device& device) {
    std::cout << device.name << ' ' << device.uuid << ' ' << major(device.number) << ':'
              << minor(device.number) << '\n';
}

void print(const dm::Targets& targets) {
    for (const dm::Target& target : targets) {
        std::cout << target.start << ' ' << target.length << ' ' << target.type << ' ' << target.parameters
                  << '\n';
    }
}

void findNumber(const Words& words) {
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    char colon = 0;
    std::istringstream(words.at(0)) >> majorNumber >> colon >> minorNumber;
    if (const auto device = dm::findByNumber(makedev(majorNumber, minorNumber))) {
        print(*device);
    }
}

void listPrefix(const Words& words) {
    for (const dm::Device& device : dm::findByPrefix(words.at(0))) {
        print(device);
    }
}

void loadTable(const Words& words) {
    dm::Targets targets;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream fields(line);
        dm::Target target;
        fields >> target.start >> target.length >> target.type >> std::ws;
        std::getline(fields, target.parameters);
        targets.push_back(target);
    }
    dm::load(named(words.at(0)), targets);
}

void showState(const Words& words) {
    const dm::State state = dm::stateOf(named(words.at(0)));
    std::cout << (state.isSuspended ? "suspended" : "active") << (state.hasTable ? " table" : "")
              << (state.hasNewTable ? " new" : "") << ' ' << state.openCount << '\n';
}

dm::Visibility visibility(const std::string& word) {
    return word == "shown" ? dm::Visibility::shown : dm::Visibility::hidden;
}

void hold(const Words& words) {
    std::vector<dm::Device> innerDevices;
    for (std::size_t index = 1; index < words.size(); ++index) {
        innerDevices.push_back(named(words[index]));
    }
    const dm::Device volume = named(words.at(0));
    auto owned = std::make_unique<dm::SuspendedDevice>(volume, dm::Visibility::shown, innerDevices,
                                                       dm::liveTable(volume));
    dm::SuspendedDevice& device = *owned;
    tolvubd::HoldGuard guard(std::move(owned));
    std::cout << "held" << std::endl;
    std::string line;
    std::getline(std::cin, line);
    device.resumeInnerDevices();
    guard.release();
    std::cout << "released" << std::endl;
}

// The commands, by name; each takes the words after the name.
const std::map<std::string, std::function<void(const Words&)>> commands{
    {"number", findNumber},
    {"prefix", listPrefix},
    {"create", [](const Words& words) { print(dm::create(words.at(0), words.at(1))); }},
    {"load", loadTable},
    {"table", [](const Words& words) { print(dm::liveTable(named(words.at(0)))); }},
    {"status", [](const Words& words) { print(dm::liveStatus(named(words.at(0)))); }},
    {"state", showState},
    {"size", [](const Words& words) { std::cout << dm::sizeOf(dm::liveTable(named(words.at(0)))) << '\n'; }},
    {"clear", [](const Words& words) { dm::clear(named(words.at(0))); }},
    {"remove", [](const Words& words) { dm::remove(named(words.at(0))); }},
    {"suspend", [](const Words& words) { dm::suspend(named(words.at(0)), true); }},
    {"suspend-only", [](const Words& words) { dm::suspend(named(words.at(0)), false); }},
    {"resume", [](const Words& words) { dm::resume(named(words.at(0)), visibility(words.at(1))); }},
    {"message",
     [](const Words& words) { std::cout << dm::message(named(words.at(0)), words.at(1)) << '\n'; }},
    {"hold", hold},
    {"watch", [](const Words& words) { dm::startWatcher(named(words.at(0)), named(words.at(1))); }},
};

} // namespace

int main(int argc, char** argv) {
    try {
        const Words words(argv + 1, argv + argc);
        commands.at(words.at(0))(Words(words.begin() + 1, words.end()));
        return EXIT_SUCCESS;
    } catch (const std::system_error& error) {
        std::cerr << error.what() << '\n';
        return error.code().value();
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
