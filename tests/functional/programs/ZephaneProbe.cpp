#include "zephane/ftp/ZephaneFTPClient.h"
#include "zephane/socket/BasicSocket.h"
#include "zephane/socket/Compressor.h"
#include "zephane/socket/Decompressor.h"
#include "zephane/socket/TLSTransport.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using zephane::Status;
using zephane::ZephaneFTPClient;

std::unique_ptr<zephane::SocketImpl> makeSocket() {
    auto socket = std::make_unique<zephane::BasicSocket>(std::make_unique<zephane::TLSTransport>("", ""));
    socket->filters().reading.push_back(std::make_shared<zephane::Decompressor>());
    socket->filters().writing.push_back(std::make_shared<zephane::Compressor>());
    return socket;
}

/// Runs one command; returns its result, and sets its status.
std::int64_t run(ZephaneFTPClient& client, const std::string& line, Status& status) {
    std::istringstream words(line);
    std::string name;
    std::int64_t number = 0;
    words >> name >> number;
    if (name == "open" || name == "close" || name == "punch") {
        status = name == "open" ? client.open() : name == "close" ? client.close() : client.punchHole(number);
        return 0;
    }
    if (name == "seek") {
        const std::int64_t position = client.seek(number, 0);
        status.code = position < 0 ? -errno : 0;
        return position;
    }
    if (name == "size") {
        return static_cast<std::int64_t>(client.size());
    }
    if (name == "read" || name == "write") {
        std::vector<char> data(static_cast<std::size_t>(number), 'w');
        return name == "read" ? client.read(data.data(), data.size(), status)
                              : client.write(data.data(), data.size(), 0, status);
    }
    throw std::invalid_argument("no such command: " + line);
}

} // namespace

/// Drives the client of the second transport: ZephaneProbe HOST PORT PATH VOLUMEID FLAGS SECRET. Each line of
/// standard input is one of
///     open | close | size | seek OFFSET | read LENGTH | write LENGTH | punch LENGTH
/// and is answered by one line of JSON: the return value of the call, and the code and text of its status.
/// The data of a write is one letter, repeated.
int main(int count, char** values) {
    const std::span<char*> all(values, static_cast<std::size_t>(count));
    const std::vector<std::string> arguments(all.begin() + 1, all.end());
    try {
        ZephaneFTPClient client(makeSocket(), arguments.at(0),
                                static_cast<std::uint16_t>(std::stoul(arguments.at(1))), arguments.at(2),
                                std::stoull(arguments.at(3)), std::stoull(arguments.at(4)), arguments.at(5));
        for (std::string line; std::getline(std::cin, line);) {
            Status status;
            const std::int64_t result = run(client, line, status);
            std::cout
                << nlohmann::json{{"result", result}, {"code", status.code}, {"text", status.text}}.dump()
                << std::endl;
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "ZephaneProbe: " << error.what() << "\n";
        return 1;
    }
}
