#pragma once

#include "zephane/wire/Digests.h"
#include "zephane/wire/Limits.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zephane::test {

/// How the server behaves; the defaults are those of a correct server.
struct ServerBehavior {
    std::string secret = "a secret";
    std::uint64_t grants = wire::compareFlag | wire::compressionFlag | wire::writableFlag;
    /// The error code that is sent in place of a grant, unless it is 0.
    std::int32_t refusal = 0;
    /// The error code that digest requests are answered with, unless it is 0.
    std::int32_t digestCode = 0;
    bool dropsLastDigest = false;        ///< answers with one digest too few
    bool answersDigests = true;          ///< if false, digest requests get no answer
    bool sendsUnrequestedAnswer = false; ///< first sends a digest answer that wasn't requested
};

/// A server for the image "image" 7, in front of an NBD server, for clients in the same process.
/// Owns:    a thread; destroying the object ends all connections.
/// Threads: safe from any.
/// Fails:   the constructor throws std::system_error if there is no free port. An error in a connection ends
///          that connection.
class ZephaneTestServer {
public:
    explicit ZephaneTestServer(std::string engineSocket, ServerBehavior behavior = {});
    ZephaneTestServer(const ZephaneTestServer&) = delete;
    ZephaneTestServer& operator=(const ZephaneTestServer&) = delete;
    ~ZephaneTestServer();

    [[nodiscard]] std::uint16_t port() const;
    [[nodiscard]] std::size_t digestRequests() const;
    /// The client ID of the last connection.
    [[nodiscard]] wire::ClientId lastClient() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

/// A fault in a connection.
struct NetworkFault {
    std::size_t afterBytes = 0;
    bool isToClient = false; ///< the direction in which bytes are counted: to the client or to the server
    bool isSilent = false;   ///< if true, no more data arrives; otherwise both connections are closed
};

/// A proxy between clients and a server that injects a fault.
/// Owns:    a thread; destroying the object ends all connections.
/// Threads: safe from any.
/// Fails:   the constructor throws std::system_error if there is no free port. An error in a connection ends
///          that connection.
class ZephaneTestNetwork {
public:
    ZephaneTestNetwork(std::uint16_t serverPort, NetworkFault fault);
    ZephaneTestNetwork(const ZephaneTestNetwork&) = delete;
    ZephaneTestNetwork& operator=(const ZephaneTestNetwork&) = delete;
    ~ZephaneTestNetwork();

    [[nodiscard]] std::uint16_t port() const;
    /// Whether the fault has happened.
    [[nodiscard]] bool hasFailed() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace zephane::test
