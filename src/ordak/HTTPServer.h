#pragma once

#include "common/IService.h"
#include "info/log/Logger.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace agent::ordak {

/// The agent's only listening socket: HTTPS on port 25567 of all IPv4 interfaces, for devices that the rules
/// of VerifyClient.h accept. Hands each finished request to one function; knows the meaning of no URL.
///
/// Each request has arguments and a body of its own, which end with it. Those of a connection come from one
/// sender, whose certificate is checked for each piece, so nobody adds to another's request or disturbs it.
///
/// Limits. The paired device may send bodies of 128 MiB, in all at a time; what others send beyond 16 KiB is
/// dropped, and their request goes on with an empty body. The library holds method, URL and headers to
/// 32 KiB. A connection that has been silent for 120 seconds is closed. Until a request on it has shown that
/// it is the paired device's it is a stranger's: 10 seconds, and the oldest of 256 makes room for one more.
/// So idle or slow strangers take neither the descriptors nor the memory that a backup needs. The library
/// takes about a thousand connections (FD_SETSIZE less four), each with a thread and a descriptor.
///
/// Owns:    the library's daemon and its threads, and copies of the TLS material.
/// Threads: `start` and `stop` on one thread; the request function on one thread for each connection, which
///          `stop` waits for. None of them ever takes a termination signal.
/// Fails:   `start` by std::runtime_error. A request that can't be served ends its connection and is logged.
class HTTPServer : public IService {
public:
    using Arguments = std::unordered_map<std::string, std::string>;
    /// Returns the HTTP status. What it throws is logged and closes the connection.
    using RequestFunction = std::function<int(int deviceId, std::string ip, std::string method,
                                              std::string url, const Arguments& args, std::string data,
                                              std::string& contentType, std::string& response)>;
    /// Whether the device with this ID is the paired one. Asked for each piece of a request; what it throws
    /// counts as a no.
    using PairedFunction = std::function<bool(int deviceId)>;

    /// `key`, `certificate` and `trust` are PEM texts. Without `isPaired` every device counts as paired whose
    /// certificate is accepted.
    HTTPServer(info::Logger& logger, std::string key, std::string certificate, std::string trust,
               RequestFunction handler, PairedFunction isPaired = {});
    HTTPServer(const HTTPServer&) = delete;
    HTTPServer& operator=(const HTTPServer&) = delete;
    ~HTTPServer() override;

    /// Listens; a server that does already begins anew.
    void start() override;
    /// Does nothing but log if the server isn't started.
    void stop() override;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace agent::ordak
