#pragma once

#include "IImage.h"
#include "ImageAddress.h"
#include "core/transport/IscsiTransport.h"

#include <string>

namespace restore {

/// An image on a LUN, over the transport that the agent has written it by: with many reads under way at once,
/// and tries over new sessions when a target goes away for some seconds.
class IscsiImage : public IImage {
public:
    /// Logs in. The logger, which has to outlive it, says what goes wrong. Throws std::runtime_error if that
    /// can't be done, or if the LUN ends before the image begins.
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
