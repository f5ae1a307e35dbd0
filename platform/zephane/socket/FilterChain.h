#pragma once

#include "zephane/socket/Filter.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace zephane {

/// A sequence of filters that acts as one. Without filters, the bytes pass unchanged.
/// Owns:    the filters, together with the lists that they came from.
/// Threads: one at a time.
/// Fails:   whatever a filter throws, such as wire::ProtocolError.
class FilterChain : public Filter {
public:
    explicit FilterChain(std::vector<std::shared_ptr<Filter>> filters) : filters(std::move(filters)) {}

    void feed(std::span<const std::uint8_t> piece) override;
    std::span<const std::uint8_t> next() override;

private:
    std::span<const std::uint8_t> nextUnfiltered();

    std::vector<std::shared_ptr<Filter>> filters;
    std::span<const std::uint8_t> unfiltered;
};

} // namespace zephane
