#pragma once

#include "IImage.h"
#include "ImageAddress.h"
#include "core/transport/IscsiTransport.h"

#include <string>

namespace restore {

/// An image on a LUN, read over the same transport by which the agent writes it: with many reads in flight,
/// and with retries in new sessions when a target is away for some seconds.
class IscsiImage : public IImage {
public:
    /// Logs in. `logger` must outlive the image and gets the details of failures. Throws std::runtime_error
    /// if the login fails, or if the LUN ends before the image begins.
    IscsiImage(agent::info::Logger& logger, const ImageAddress& address, std::string password);
    IscsiImage(const IscsiImage&) = delete;
    IscsiImage& operator=(const IscsiImage&) = delete;
    IscsiImage(IscsiImage&&) = delete;
    IscsiImage& operator=(IscsiImage&&) = delete;
    ~IscsiImage() override;

    [[nodiscard]] std::uint64_t size() const override { return bytes; }
    void read(std::span<std::byte> into, std::uint64_t offset) override;
    [[nodiscard]] std::string name() const override { return label; }

private:
    std::string label;
    agent::core::IscsiTransport transport;
    std::uint64_t bytes = 0;
};

} // namespace restore
