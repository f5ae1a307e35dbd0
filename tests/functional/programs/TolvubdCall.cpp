// Calls one function of the snapshot driver's library and prints the result: TolvubdCall FUNCTION ARGUMENT...
// The exit status is 0 only if the library has returned 0.

#include "tolvubd.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::uint64_t number(const std::string& text) {
    return std::stoull(text);
}

std::uint32_t minorOf(const std::string& text) {
    return static_cast<std::uint32_t>(std::stoul(text));
}

// Functions are named as in C, without the prefix; arguments are in the order of C, without the cache sizes.
int32_t call(const std::string& function, const std::vector<std::string>& a) {
    if (function == "setup_snapshot") {
        return tolvubd_setup_snapshot(minorOf(a.at(0)), a.at(1).c_str(), a.at(2).c_str(), number(a.at(3)), 0);
    }
    if (function == "transition_snapshot") {
        return tolvubd_transition_snapshot(minorOf(a.at(0)), a.at(1).c_str(), number(a.at(2)));
    }
    if (function == "transition_incremental") {
        return tolvubd_transition_incremental(minorOf(a.at(0)));
    }
    if (function == "reload_snapshot") {
        return tolvubd_reload_snapshot(minorOf(a.at(0)), a.at(1).c_str(), a.at(2).c_str(), 0);
    }
    if (function == "reload_incremental") {
        return tolvubd_reload_incremental(minorOf(a.at(0)), a.at(1).c_str(), a.at(2).c_str(), 0);
    }
    if (function == "reconfigure") {
        return tolvubd_reconfigure(minorOf(a.at(0)), number(a.at(1)));
    }
    if (function == "destroy") {
        return tolvubd_destroy(minorOf(a.at(0)));
    }
    if (function == "check_snapshot") {
        return tolvubd_check_snapshot(minorOf(a.at(0)));
    }
    if (function == "get_room") {
        uint64_t bytes = 0;
        const int32_t result = tolvubd_get_room(a.at(0).c_str(), &bytes);
        std::cout << bytes << '\n';
        return result;
    }
    if (function == "start") {
        std::cout << tolvubd_get_status_files()->info << '\n';
        return 0;
    }
    throw std::invalid_argument(function);
}

} // namespace

int main(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        const int32_t result = call(words.at(0), {words.begin() + 1, words.end()});
        const int error = errno;
        std::cout << result << ' ' << (result == 0 ? 0 : error) << '\n';
        return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) { // not enough arguments, or an unknown function
        std::cerr << "TolvubdCall: " << error.what() << '\n';
        return 2;
    }
}
