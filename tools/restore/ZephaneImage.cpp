#include "ZephaneImage.h"

#include "Reading.h"

#include <cstdio>
#include <stdexcept>
#include <utility>
#include <zephane/ftp/ZephaneFTPClient.h>
#include <zephane/socket/BasicSocket.h>
#include <zephane/socket/Compressor.h>
#include <zephane/socket/Decompressor.h>
#include <zephane/socket/TLSTransport.h>

namespace restore {

namespace {

constexpr unsigned long compressFlag = 2;

std::unique_ptr<zephane::SocketImpl> makeSocket() {
    auto socket = std::make_unique<zephane::BasicSocket>(std::make_unique<zephane::TLSTransport>("", ""));
    socket->filters().reading.push_back(std::make_shared<zephane::Decompressor>());
    socket->filters().writing.push_back(std::make_shared<zephane::Compressor>());
    return socket;
}

} // namespace

ZephaneImage::ZephaneImage(const ImageAddress& address, std::string secret)
    : address(address),
      secret(std::move(secret)),
      bytes(bytesAfter(address.text, connect(), address.offset)) {}

ZephaneImage::~ZephaneImage() = default;

std::uint64_t ZephaneImage::connect() {
    auto candidate = std::make_unique<zephane::ZephaneFTPClient>(
        makeSocket(), address.host, address.port, address.path, address.volumeId, compressFlag, secret);
    const zephane::Status status = candidate->open();
    if (status.code != 0) {
        throw std::runtime_error("the image " + address.text + " can't be reached: " + status.text);
    }
    client = std::move(candidate);
    return client->size();
}

void ZephaneImage::read(std::span<std::byte> into, std::uint64_t offset) {
    readWithRetries(address.text, offset, [&] { tryRead(into, offset); });
}

void ZephaneImage::tryRead(std::span<std::byte> into, std::uint64_t offset) {
    if (!client) {
        connect();
    }
    zephane::Status status;
    const auto place = static_cast<std::int64_t>(address.offset + offset);
    const bool isThere = client->seek(place, SEEK_SET) == place;
    const std::int64_t got = isThere ? client->read(into.data(), into.size(), status) : 0;
    if (got != static_cast<std::int64_t>(into.size())) {
        client.reset();
        throw std::runtime_error(status.text.empty() ? "the image ends before it" : status.text);
    }
}

} // namespace restore
