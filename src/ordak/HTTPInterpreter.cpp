#include "ordak/HTTPInterpreter.h"

#include "common/Exceptions.h"
#include "common/PeerText.h"
#include "ordak/http_not_implemented.h"

#include <string_view>
#include <utility>

namespace agent::ordak {
namespace {

constexpr const char* plainText = "text/plain";

/// Where the backup's ID begins in the URLs that contain one.
constexpr std::size_t urlDataPosition = std::string_view("/backup/").size();

/// Whether a device that isn't paired may make this call: those that it needs for the pairing.
bool isOpenToAll(APICall call) {
    switch (call) {
    case APICall::basichost:
    case APICall::pair:
    case APICall::pairTicket:
    case APICall::feature:
    case APICall::install:
        return true;
    default:
        return false;
    }
}

/// Makes a text from a request printable, and short enough for a log line.
std::string forLog(const std::string& text) {
    return printable(shortened(text));
}

bool namesBackup(APICall call) {
    return call == APICall::backupStatus || call == APICall::backupCancel;
}

} // namespace

HTTPInterpreter::HTTPInterpreter(info::Logger& logger, info::Logger& securityLogger,
                                 Authorization isAuthorized)
    : logger(logger), securityLogger(securityLogger), isAuthorized(std::move(isAuthorized)) {}

void HTTPInterpreter::setCallback(APICall call, Handler handler) {
    handlers.at(static_cast<std::size_t>(call)) = std::move(handler);
}

void HTTPInterpreter::setCallback(APICall call, BodyHandler handler) {
    setCallback(call, [handler = std::move(handler)](const std::string& body, const APIExtendedData&) {
        return handler(body);
    });
}

void HTTPInterpreter::setCallback(APICall call, PlainHandler handler) {
    setCallback(call, [handler = std::move(handler)](const std::string&, const APIExtendedData&) {
        return handler();
    });
}

// The signature is that of the server's request function.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
int HTTPInterpreter::interpret(int deviceId, std::string ip, std::string method, std::string url,
                               const std::unordered_map<std::string, std::string>& args,
                               std::string data, // NOLINT(performance-unnecessary-value-param)
                               std::string& contentType, std::string& response) const {
    const APICall call = classifyAPICall(method, url);
    if (call != APICall::backupStatus) { // the appliance polls this call
        info::LogEntry(logger, info::level::debug) << "Handling request";
        info::LogEntry(logger, info::level::debug) << "Request from device id: " << deviceId;
        info::LogEntry(logger, info::level::debug) << "IPV4: " << ip;
        info::LogEntry(logger, info::level::debug) << "METHOD: " << forLog(method);
        info::LogEntry(logger, info::level::debug) << "URL: " << forLog(url);
        info::LogEntry(logger, info::level::debug) << "DATA: " << forLog(data);
    }
    contentType = plainText;
    if (call == APICall::invalid) {
        response = "Invalid request.";
        info::LogEntry(logger, info::level::info) << "Rejected invalid API request";
        return 400;
    }
    if (!handlers.at(static_cast<std::size_t>(call))) {
        response = "Not implemented.";
        info::LogEntry(logger, info::level::error)
            << "Attempted unimplemented API request for " << apiCallName(call) << ".";
        return 501;
    }
    if (!mayCall(call, deviceId, ip)) {
        info::LogEntry(securityLogger, info::level::warning, info::reason("not-paired"))
            << "Unauthorized request from device " << deviceId << " for " << apiCallName(call);
        response = "Unauthorized";
        return 401;
    }
    const auto extended = [&] {
        return APIExtendedData{deviceId, ip, namesBackup(call) ? url.substr(urlDataPosition) : "", args};
    };
    return runHandler(call, data, extended, contentType, response);
}

bool HTTPInterpreter::mayCall(APICall call, int deviceId, const std::string& ip) const {
    return isOpenToAll(call) || isAuthorized(deviceId, ip);
}

int HTTPInterpreter::runHandler(APICall call, const std::string& data,
                                const std::function<APIExtendedData()>& extended, std::string& contentType,
                                std::string& response) const {
    try {
        APIResponse result = handlers.at(static_cast<std::size_t>(call))(data, extended());
        response = std::move(result.text);
        contentType = result.contentType == APIResponse::ContentType::json ? "application/json" : plainText;
        return result.status;
    } catch (const http_not_implemented& error) {
        response = shortened(error.what());
        info::LogEntry(logger, info::level::warning)
            << "API request for " << apiCallName(call) << " is not implemented on this OS: " << response;
        return 501;
    } catch (const exception::bad_request& error) {
        response = shortened(error.what());
        info::LogEntry(logger, info::level::warning)
            << "Bad API request for " << apiCallName(call) << ": " << printable(response);
        return 400;
    } catch (const std::exception& error) {
        response = shortened(error.what());
        info::LogEntry(logger, info::level::error)
            << "Internal server error on request " << apiCallName(call) << ": " << printable(response);
        return 500;
    }
}

} // namespace agent::ordak
