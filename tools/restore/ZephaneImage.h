#pragma once

#include "IImage.h"
#include "ImageAddress.h"

#include <memory>
#include <string>

namespace zephane {
class ZephaneFTPClient;
} // namespace zephane

namespace restore {

/// An image on a server of the file protocol. Sends no requests that write.
class ZephaneImage : public IImage {
public:
    /// Connects. Throws std::runtime_error if the server can't be reached or refuses, or if its file ends
    /// before the image begins.
    ZephaneImage(const ImageAddress& address, std::string secret);
    ~ZephaneImage() override;

    [[nodiscard]] std::uint64_t size() const override { return bytes; }
    /// Retries over new connections, as a server may be restarted meanwhile.
    void read(std::span<std::byte> into, std::uint64_t offset) override;
    [[nodiscard]] std::string name() const override { return address.text; }

private:
    /// Returns the size of the server's file in bytes.
    std::uint64_t connect();
    void tryRead(std::span<std::byte> into, std::uint64_t offset);

    ImageAddress address;
    std::string secret;
    std::unique_ptr<zephane::ZephaneFTPClient> client; // null while there is no connection
    std::uint64_t bytes = 0;
};

} // namespace restore
