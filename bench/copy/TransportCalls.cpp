#include "common/AlignedBuffer.h"
#include "core/transport/IscsiTransport.h"
#include "info/log/Logger.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>
#include <stdexcept>
#include <string>

/// Measures a backup's own writes: calls of 4 MiB, one after the other, from the beginning of a disk. Prints
/// the bytes and the seconds, without the login.
namespace agent::bench {
namespace {

constexpr std::size_t callBytes = 0x400000; // as in a backup
constexpr std::size_t alignment = 4096;

double secondsOf(core::IscsiTransport& transport, AlignedBuffer& buffer, std::uint64_t calls) {
    const auto begin = std::chrono::steady_clock::now();
    for (std::uint64_t call = 0; call < calls; ++call) {
        if (transport.write(buffer.data(), callBytes) != static_cast<std::int64_t>(callBytes)) {
            throw std::runtime_error("call " + std::to_string(call) + " has failed");
        }
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void measure(const std::string& portal, const std::string& target, int lun, std::uint64_t calls) {
    info::Logger logger{info::PrinterFunction()};
    core::IscsiTransport transport(logger, target, portal, lun, 0, "", "");
    if (!transport.connect(false)) {
        throw std::runtime_error("no session with " + portal);
    }
    AlignedBuffer buffer(callBytes, alignment);
    const std::span bytes(buffer.data(), buffer.size());
    std::ranges::fill(bytes, std::byte{0xA5});
    const double seconds = secondsOf(transport, buffer, calls);
    std::printf(R"({"bytes": %lu, "seconds": %.6f})"
                "\n",
                calls * callBytes, seconds);
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    if (argumentCount != 5) {
        std::fprintf(stderr, "usage: bench_transport_calls PORTAL TARGET LUN CALLS\n");
        return EXIT_FAILURE;
    }
    try {
        agent::bench::measure(arguments[1], arguments[2], std::stoi(arguments[3]), std::stoul(arguments[4]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_transport_calls: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
