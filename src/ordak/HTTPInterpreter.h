#pragma once

#include "info/log/Logger.h"
#include "ordak/APICall.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"

#include <array>
#include <functional>
#include <string>
#include <unordered_map>

namespace agent::ordak {

/// Calls the handler for each complete HTTP request, and turns its result or exception into a response.
/// Owns:    the table of handlers; the loggers must outlive it.
/// Threads: any thread may call `interpret`, several at once; all calls of `setCallback` come before. A
///          handler runs on the caller's thread and must protect what it shares with others.
/// Fails:   a std::exception of a handler becomes a status and a text. Any other exception leaves
///          `interpret`, and so does one from the authorisation function. Error texts and logged parts of a
///          request are shortened, because they may contain whole bodies.
class HTTPInterpreter {
public:
    using Handler = std::function<APIResponse(const std::string& body, const APIExtendedData& extended)>;
    using BodyHandler = std::function<APIResponse(const std::string& body)>;
    using PlainHandler = std::function<APIResponse()>;
    /// Whether the device with this ID, calling from this address, is the one that the agent is paired with.
    using Authorization = std::function<bool(int deviceId, const std::string& address)>;

    HTTPInterpreter(info::Logger& logger, info::Logger& securityLogger, Authorization isAuthorized);

    /// Registers the handler of a call and replaces an earlier one. Throws std::out_of_range for
    /// APICall::invalid.
    void setCallback(APICall call, Handler handler);
    void setCallback(APICall call, BodyHandler handler);
    void setCallback(APICall call, PlainHandler handler);

    /// Returns the HTTP status.
    int interpret(int deviceId, std::string ip, std::string method, std::string url,
                  const std::unordered_map<std::string, std::string>& args, std::string data,
                  std::string& contentType, std::string& response) const;

private:
    static constexpr auto callCount = static_cast<std::size_t>(APICall::invalid);

    [[nodiscard]] bool mayCall(APICall call, int deviceId, const std::string& ip) const;
    int runHandler(APICall call, const std::string& data, const std::function<APIExtendedData()>& extended,
                   std::string& contentType, std::string& response) const;

    info::Logger& logger;
    info::Logger& securityLogger;
    std::array<Handler, callCount> handlers;
    Authorization isAuthorized;
};

} // namespace agent::ordak
