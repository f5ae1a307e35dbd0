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

/// Turns one finished HTTP request into the call of a handler, and what comes of it into an answer.
/// Owns:    the table of handlers; the loggers must outlive it.
/// Threads: `interpret` from any thread at once; the table is filled before the first of them. A handler
///          runs on its caller's thread and takes care of what it shares with others.
/// Fails:   never for a std::exception of a handler, which becomes a status and a text. Anything else
///          leaves `interpret`, and so does what the authorisation function throws. Texts of failures, and
///          what is logged of a request, are cut where they get long: they may hold whole bodies.
class HTTPInterpreter {
public:
    using Handler = std::function<APIResponse(const std::string& body, const APIExtendedData& extended)>;
    using BodyHandler = std::function<APIResponse(const std::string& body)>;
    using PlainHandler = std::function<APIResponse()>;
    /// Whether the device with this ID, calling from this address, is the one that the agent belongs to.
    using Authorization = std::function<bool(int deviceId, const std::string& address)>;

    HTTPInterpreter(info::Logger& logger, info::Logger& securityLogger, Authorization isAuthorized);

    /// Registers the handler of a call, in the place of an earlier one. A call that is none throws
    /// std::out_of_range.
    void setCallback(APICall call, Handler handler);
    void setCallback(APICall call, BodyHandler handler);
    void setCallback(APICall call, PlainHandler handler);

    /// Returns the HTTP status.
    int interpret(int deviceId, std::string ip, std::string method, std::string url,
                  const std::unordered_map<std::string, std::string>& args, std::string data,
                  std::string& contentType, std::string& response) const;

private:
    static constexpr std::size_t callCount = 21;

    [[nodiscard]] bool mayCall(APICall call, int deviceId, const std::string& ip) const;
    int runHandler(APICall call, const std::string& data, const std::function<APIExtendedData()>& extended,
                   std::string& contentType, std::string& response) const;

    info::Logger& logger;
    info::Logger& securityLogger;
    std::array<Handler, callCount> handlers;
    Authorization isAuthorized;
};

} // namespace agent::ordak
