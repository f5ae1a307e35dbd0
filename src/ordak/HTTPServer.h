#pragma once

#include "common/IService.h"
#include "info/log/Logger.h"

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace agent::ordak {

/// The agent's only listening socket: HTTPS on port 25567 of all IPv4 interfaces, for devices that the rules
/// of VerifyClient.h accept. It passes each complete request to one function and doesn't interpret URLs.
///
/// Each request has arguments and a body of its own. All requests of a connection come from one sender, whose
/// certificate is checked for each piece, so no client can change another client's request.
///
/// Limits: all request bodies together may have 128 MiB. If a device that isn't paired sends a body of more
/// than 16 KiB, the body is dropped, and the request is handled with an empty one. The library limits method,
/// URL and headers to 32 KiB. A connection is closed after 120 seconds of silence. Until a request on a
/// connection has come from the paired device, the connection is unidentified: it is closed after 10
/// seconds, and at most 256 of these are open; a further one displaces the oldest. So idle or slow clients
/// can't use up the descriptors or the memory that a backup needs. The library accepts about a thousand
/// connections (FD_SETSIZE less four), each with a thread and a descriptor.
///
/// Owns:    the library's daemon and its threads, and copies of the TLS material.
/// Threads: one thread calls `start` and `stop`. The request function runs on one thread for each connection,
///          and `stop` waits for those threads. All library threads block the termination signals.
/// Fails:   `start` throws std::runtime_error. A request that can't be served is logged and disconnected.
class HTTPServer : public IService {
public:
    using Arguments = std::unordered_map<std::string, std::string>;
    /// Returns the HTTP status. If it throws, the exception is logged and the connection is closed.
    using RequestFunction = std::function<int(int deviceId, std::string ip, std::string method,
                                              std::string url, const Arguments& args, std::string data,
                                              std::string& contentType, std::string& response)>;
    /// Whether the device with this ID is the paired one. Called for each piece of a request; an exception
    /// counts as false.
    using PairedFunction = std::function<bool(int deviceId)>;

    /// `key`, `certificate` and `trust` are PEM texts. Without `isPaired`, every device with an accepted
    /// certificate counts as paired.
    HTTPServer(info::Logger& logger, std::string key, std::string certificate, std::string trust,
               RequestFunction handler, PairedFunction isPaired = {});
    HTTPServer(const HTTPServer&) = delete;
    HTTPServer& operator=(const HTTPServer&) = delete;
    ~HTTPServer() override;

    /// Starts to listen. If the server is already running, stops it first.
    void start() override;
    /// Only logs if the server isn't running.
    void stop() override;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace agent::ordak
