#pragma once

#include "IImage.h"

#include <memory>
#include <string>

struct nbd_handle;

namespace restore {

/// An image that an NBD server exports.
class NbdImage : public IImage {
public:
    /// `uri` is one that libnbd understands; the image begins at the byte `offset`. Throws std::runtime_error
    /// if the server can't be reached, or has no such export.
    NbdImage(std::string uri, std::uint64_t offset);
    ~NbdImage() override;

    [[nodiscard]] std::uint64_t size() const override { return bytes; }
    /// Keeps many requests in flight, and retries over new connections, as a server may be restarted
    /// meanwhile.
    void read(std::span<std::byte> into, std::uint64_t offset) override;
    [[nodiscard]] std::string name() const override { return uri; }

private:
    struct Close {
        void operator()(nbd_handle* connection) const noexcept;
    };

    /// Returns the size of the export in bytes.
    std::uint64_t connect();
    void tryRead(std::span<std::byte> into, std::uint64_t offset);

    std::string uri;
    std::uint64_t begin;
    std::unique_ptr<nbd_handle, Close> connection; // null while there is no connection
    std::uint64_t bytes = 0;
};

} // namespace restore
