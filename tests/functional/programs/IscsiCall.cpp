#include "core/transport/IscsiTransport.h"
#include "info/log/Logger.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using agent::core::IscsiTransport;

std::vector<char> readPiece(const std::string& file, std::streamoff offset, std::size_t length) {
    std::vector<char> piece(length);
    std::ifstream stream(file, std::ios::binary);
    stream.seekg(offset).read(piece.data(), static_cast<std::streamsize>(length));
    if (!stream) {
        throw std::runtime_error(file + " is too short");
    }
    return piece;
}

std::int64_t readInto(IscsiTransport& transport, std::size_t length, const std::string& file) {
    std::vector<char> received(length);
    const std::int64_t result = transport.read(received.data(), received.size());
    if (result > 0) {
        std::ofstream(file, std::ios::binary).write(received.data(), result);
    }
    return result;
}

/// Runs one command; returns its result, or -1 if it failed.
std::int64_t run(IscsiTransport& transport, const std::string& line) {
    std::istringstream words(line);
    std::string name;
    std::string file;
    std::int64_t offset = 0;
    std::size_t length = 0;
    int whence = 0;
    words >> name;
    if (name == "connect" || name == "compare") {
        return transport.connect(name == "compare") ? 0 : -1;
    }
    if (name == "disconnect") {
        transport.disconnect();
        return 0;
    }
    if (name == "seek" && words >> offset >> whence) {
        return transport.seek(offset, whence);
    }
    if (name == "read" && words >> length >> file) {
        return readInto(transport, length, file);
    }
    if (name == "write" && words >> file >> offset >> length) {
        const std::vector<char> piece = readPiece(file, offset, length);
        return transport.write(piece.data(), piece.size());
    }
    throw std::invalid_argument("no such command: " + line);
}

void serve(IscsiTransport& transport) {
    for (std::string line; std::getline(std::cin, line);) {
        const std::int64_t result = run(transport, line);
        const int error = result < 0 ? errno : 0;
        std::cout << nlohmann::json{{"result", result}, {"errno", error}}.dump() << std::endl;
    }
}

} // namespace

/// Drives the transport to an iSCSI target: IscsiCall TARGET PORTAL LUN OFFSET USER PASSWORD. Each line of
/// standard input is one of
///     connect | compare | disconnect         `compare` connects too; writes then compare first
///     seek OFFSET WHENCE
///     read LENGTH FILE                       writes the data to FILE
///     write FILE OFFSET LENGTH               writes this part of FILE
/// and is answered by one line of JSON: the return value of the call, and `errno` if that is -1. The log goes
/// to standard error; each line begins with its level as a number.
int main(int count, char** values) {
    agent::info::Logger logger([](const std::string& message, int level, agent::info::LogTime /*time*/) {
        std::cerr << level << " " << message << std::flush;
    });
    const std::span<char*> all(values, static_cast<std::size_t>(count));
    const std::vector<std::string> arguments(all.begin() + 1, all.end());
    try {
        IscsiTransport transport(logger, arguments.at(0), arguments.at(1), std::stoi(arguments.at(2)),
                                 std::stoull(arguments.at(3)), arguments.at(4), arguments.at(5));
        serve(transport);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "IscsiCall: " << error.what() << "\n";
        return 1;
    }
}
