#pragma once

#include <string>

namespace zephane {

/// An engine that serves one image by NBD.
/// Owns:    the engine's process and its socket.
/// Threads: any.
/// Fails:   never.
class IEngine {
public:
    virtual ~IEngine() = default;
    /// The path of the Unix socket where the engine accepts connections, shortly after its start.
    [[nodiscard]] virtual const std::string& socket() const = 0;
    /// Whether the engine has ended: from then on it doesn't write to the image any more.
    [[nodiscard]] virtual bool hasEnded() const = 0;
    /// Asks the engine to end, without waiting for that.
    virtual void stop() = 0;
};

} // namespace zephane
