#pragma once

#include "zephane/ftp/ZephaneFTPClient.h"
#include "zephane/socket/BasicSocket.h"
#include "zephane/socket/Compressor.h"
#include "zephane/socket/Decompressor.h"
#include "zephane/socket/TLSTransport.h"
#include "zephane/wire/Limits.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace zephane::test {

/// Parameters of a client. By default it opens the image "image" 7 on this machine for writing.
struct ClientParameters {
    std::uint16_t port = 0;
    std::uint64_t flags = wire::writableFlag;
    ClientPatience patience = {};
    std::string secret = "a secret";
    std::string host = "127.0.0.1";
    bool hasFilters = true;
};

inline ZephaneFTPClient makeClient(const ClientParameters& parameters) {
    auto socket = std::make_unique<BasicSocket>(std::make_unique<TLSTransport>("", ""));
    if (parameters.hasFilters) {
        socket->filters().reading.push_back(std::make_shared<Decompressor>());
        socket->filters().writing.push_back(std::make_shared<Compressor>());
    }
    return {std::move(socket), parameters.host,   parameters.port,    "image", 7,
            parameters.flags,  parameters.secret, parameters.patience};
}

/// Bytes that can't be compressed; the same seed gives the same bytes.
inline std::vector<std::uint8_t> randomBytes(std::size_t length, unsigned seed) {
    std::mt19937 generator(seed);
    std::vector<std::uint8_t> bytes(length);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(generator());
    }
    return bytes;
}

} // namespace zephane::test
