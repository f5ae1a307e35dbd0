#include "ordak/HTTPInterpreter.h"

#include "common/Exceptions.h"
#include "common/PeerText.h"
#include "ordak/http_not_implemented.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

namespace agent::ordak {
namespace {

using Lines = std::vector<test::RecordingLogger::Line>;

struct Row {
    int call;
    std::string name;
    std::string method;
    std::string url;
    bool isOpen = false; // needs no paired device
};

/// The expected routes, written out independently of the code.
const std::vector<Row>& routeTable() {
    static const std::vector<Row> rows = {
        {0, "basichost", "GET", "/basichost", true},
        {1, "pair", "POST", "/pair", true},
        {2, "pairTicket", "POST", "/agentPairTicket", true},
        {3, "host", "GET", "/host"},
        {4, "backup", "POST", "/backup"},
        {5, "backupStatus", "GET", "/backup/abc"},
        {6, "backupList", "GET", "/backup"},
        {7, "backupCancel", "DELETE", "/backup/abc"},
        {8, "logs", "GET", "/event"},
        {9, "command", "POST", "/command"},
        {10, "updateSupportModule", "POST", "/updsptcmdmod"},
        {11, "upgradeGet", "GET", "/upgrade"},
        {12, "upgradeDo", "POST", "/upgrade"},
        {13, "logLevel", "POST", "/logLevel"},
        {14, "services", "GET", "/v2/system/services"},
        {15, "feature", "GET", "/v2/feature", true},
        {16, "install", "GET", "/v2/install", true},
        {17, "pendingUpdate", "GET", "/v2/system/updates"},
        {18, "configGet", "GET", "/config"},
        {19, "configSet", "POST", "/config"},
        {20, "driverStatus", "GET", "/v2/driver/status"},
    };
    return rows;
}

/// The call in the table for a request; 21 if there is none.
int expectedCall(const std::string& method, const std::string& url) {
    for (const Row& row : routeTable()) {
        const bool isPrefix = row.call == 5 || row.call == 7;
        if (row.method == method && (isPrefix ? url.substr(0, 8) == "/backup/" : url == row.url)) {
            return row.call;
        }
    }
    return 21;
}

TEST(APICallTest, Names) {
    for (const Row& row : routeTable()) {
        EXPECT_EQ(apiCallName(static_cast<APICall>(row.call)), row.name);
    }
    EXPECT_EQ(apiCallName(APICall::invalid), "invalid");
    for (const int none : {-1, 22, 1 << 20}) {
        EXPECT_EQ(apiCallName(static_cast<APICall>(none)), "unknown");
    }
}

TEST(APICallTest, EveryMethodOnEveryUrl) {
    for (const std::string method : {"GET", "POST", "PUT", "DELETE", "PATCH", "get", ""}) {
        for (const Row& row : routeTable()) {
            for (const std::string& url :
                 {row.url, row.url + "/", row.url + "x", row.url.substr(1), "/" + row.url, row.url + " "}) {
                EXPECT_EQ(static_cast<int>(classifyAPICall(method, url)), expectedCall(method, url))
                    << method << " " << url;
            }
        }
    }
    EXPECT_EQ(classifyAPICall("GET", "/Host"), APICall::invalid);
    EXPECT_EQ(classifyAPICall("GET", "/host/"), APICall::invalid);
    EXPECT_EQ(classifyAPICall("GET", "/backup/"), APICall::backupStatus);
    EXPECT_EQ(classifyAPICall("DELETE", "/backup"), APICall::invalid);
    EXPECT_EQ(classifyAPICall("GET", ""), APICall::invalid);
}

class HTTPInterpreterTest : public testing::Test {
protected:
    struct Outcome {
        int status;
        std::string contentType;
        std::string response;
        friend bool operator==(const Outcome&, const Outcome&) = default;
        friend void PrintTo(const Outcome& outcome, std::ostream* out) {
            *out << outcome.status << " " << outcome.contentType << " '" << outcome.response << "'";
        }
    };

    Outcome request(const std::string& method, const std::string& url, const std::string& data = "") {
        Outcome outcome{0, "stale", "stale"};
        outcome.status = interpreter.interpret(4711, "10.0.0.1", method, url, {{"a", "b"}}, data,
                                               outcome.contentType, outcome.response);
        return outcome;
    }

    void answerAll() {
        for (const Row& row : routeTable()) {
            interpreter.setCallback(static_cast<APICall>(row.call), [name = row.name] {
                return APIResponse{APIResponse::ContentType::plainText, name, 200};
            });
        }
    }

    test::RecordingLogger record;
    test::RecordingLogger security;
    bool isPaired = true;
    std::vector<std::pair<int, std::string>> asked;
    HTTPInterpreter interpreter{record.logger, security.logger, [this](int id, const std::string& address) {
                                    asked.emplace_back(id, address);
                                    return isPaired;
                                }};
};

TEST_F(HTTPInterpreterTest, EachRouteHasItsHandler) {
    answerAll();
    for (const Row& row : routeTable()) {
        EXPECT_EQ(request(row.method, row.url), (Outcome{200, "text/plain", row.name}));
    }
    EXPECT_TRUE(security.lines().empty());
}

TEST_F(HTTPInterpreterTest, OnlyOpenCallsServeAnUnpairedDevice) {
    answerAll();
    isPaired = false;
    for (const Row& row : routeTable()) {
        asked.clear();
        security.clear();
        const Outcome outcome = request(row.method, row.url);
        if (row.isOpen) {
            EXPECT_EQ(outcome, (Outcome{200, "text/plain", row.name}));
            EXPECT_TRUE(asked.empty());
            EXPECT_TRUE(security.lines().empty());
        } else {
            EXPECT_EQ(outcome, (Outcome{401, "text/plain", "Unauthorized"}));
            EXPECT_EQ(asked, (std::vector<std::pair<int, std::string>>{{4711, "10.0.0.1"}}));
            EXPECT_EQ(security.lines(),
                      (Lines{{2, "Unauthorized request from device 4711 for " + row.name}}));
        }
    }
}

TEST_F(HTTPInterpreterTest, HandlerIsAskedForBeforeTheDevice) {
    isPaired = false;
    for (const Row& row : routeTable()) {
        record.clear();
        EXPECT_EQ(request(row.method, row.url), (Outcome{501, "text/plain", "Not implemented."}));
        EXPECT_EQ(
            record.lines().back(),
            (test::RecordingLogger::Line{1, "Attempted unimplemented API request for " + row.name + "."}));
    }
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(security.lines().empty());
}

TEST_F(HTTPInterpreterTest, InvalidRequests) {
    answerAll();
    for (const auto& [method, url] : {std::pair("POST", "/host"), {"GET", "/command"}, {"PUT", "/config"}}) {
        record.clear();
        EXPECT_EQ(request(method, url, "body"), (Outcome{400, "text/plain", "Invalid request."}));
        EXPECT_EQ(record.lines(), (Lines{{4, "Handling request"},
                                         {4, "Request from device id: 4711"},
                                         {4, "IPV4: 10.0.0.1"},
                                         {4, std::string("METHOD: ") + method},
                                         {4, std::string("URL: ") + url},
                                         {4, "DATA: body"},
                                         {3, "Rejected invalid API request"}}));
    }
    EXPECT_TRUE(asked.empty());
}

TEST_F(HTTPInterpreterTest, PollingIsNotLogged) {
    EXPECT_EQ(request("GET", "/backup/abc").status, 501);
    EXPECT_EQ(record.lines(), (Lines{{1, "Attempted unimplemented API request for backupStatus."}}));
    answerAll();
    record.clear();
    EXPECT_EQ(request("GET", "/backup/abc").status, 200);
    EXPECT_TRUE(record.lines().empty());
    isPaired = false;
    EXPECT_EQ(request("GET", "/backup/").status, 401);
    EXPECT_TRUE(record.lines().empty());
    EXPECT_EQ(security.lines(), (Lines{{2, "Unauthorized request from device 4711 for backupStatus"}}));
}

/// Only calls that name a backup get URL data: what follows the route's prefix.
TEST_F(HTTPInterpreterTest, HandlerGetsTheRequest) {
    std::optional<std::pair<std::string, APIExtendedData>> given;
    const HTTPInterpreter::Handler handler = [&](const std::string& body, const APIExtendedData& extended) {
        given.emplace(body, extended);
        return APIResponse{APIResponse::ContentType::json, "[]", 202};
    };
    for (const APICall call : {APICall::backupStatus, APICall::backupCancel, APICall::logs}) {
        interpreter.setCallback(call, handler);
    }
    EXPECT_EQ(request("GET", "/backup/abc/d", "body"), (Outcome{202, "application/json", "[]"}));
    ASSERT_TRUE(given);
    EXPECT_EQ(given->first, "body");
    EXPECT_EQ(given->second.deviceId, 4711);
    EXPECT_EQ(given->second.ip, "10.0.0.1");
    EXPECT_EQ(given->second.urlData, "abc/d");
    EXPECT_EQ(given->second.args, (std::unordered_map<std::string, std::string>{{"a", "b"}}));
    request("DELETE", "/backup/");
    EXPECT_EQ(given->second.urlData, "");
    request("DELETE", "/backup/x");
    EXPECT_EQ(given->second.urlData, "x");
    request("GET", "/event");
    EXPECT_EQ(given->second.urlData, "");
}

TEST_F(HTTPInterpreterTest, LaterHandlerReplacesTheEarlier) {
    answerAll();
    interpreter.setCallback(APICall::host, [](const std::string& body) {
        return APIResponse{static_cast<APIResponse::ContentType>(2), body, 299};
    });
    EXPECT_EQ(request("GET", "/host", "body"), (Outcome{299, "text/plain", "body"}));
    EXPECT_THROW(interpreter.setCallback(APICall::invalid, [] { return APIResponse{}; }), std::out_of_range);
    EXPECT_THROW(interpreter.setCallback(static_cast<APICall>(-1), [] { return APIResponse{}; }),
                 std::out_of_range);
}

TEST_F(HTTPInterpreterTest, ExceptionsAreAnswers) {
    const auto outcomeOf = [&](const std::function<void()>& failing) {
        interpreter.setCallback(APICall::backupStatus, [&]() -> APIResponse {
            failing();
            return {APIResponse::ContentType::json, "{}", 200};
        });
        record.clear();
        return request("GET", "/backup/abc");
    };
    EXPECT_EQ(outcomeOf([] { throw http_not_implemented("not here"); }),
              (Outcome{501, "text/plain", "not here"}));
    EXPECT_EQ(record.lines(),
              (Lines{{2, "API request for backupStatus is not implemented on this OS: not here"}}));
    EXPECT_EQ(outcomeOf([] { throw exception::bad_request("bad body"); }),
              (Outcome{400, "text/plain", "bad body"}));
    EXPECT_EQ(record.lines(), (Lines{{2, "Bad API request for backupStatus: bad body"}}));
    EXPECT_EQ(outcomeOf([] { throw std::out_of_range("too far"); }), (Outcome{500, "text/plain", "too far"}));
    EXPECT_EQ(record.lines(), (Lines{{1, "Internal server error on request backupStatus: too far"}}));
    EXPECT_EQ(outcomeOf([] { throw std::invalid_argument("odd"); }), (Outcome{500, "text/plain", "odd"}));
    EXPECT_EQ(outcomeOf([] {}), (Outcome{200, "application/json", "{}"}));
}

/// A request body may be part of an error message. Neither the log nor the response may contain all of it.
TEST_F(HTTPInterpreterTest, LongTextsAreCut) {
    const std::string endless(1'000'000, 'x');
    const std::string cut = std::string(maxPeerTextBytes, 'x') + "... (1000000 bytes)";
    interpreter.setCallback(
        APICall::backup, [](const std::string& body) -> APIResponse { throw exception::bad_request(body); });
    interpreter.setCallback(APICall::configSet,
                            [](const std::string& body) -> APIResponse { throw std::runtime_error(body); });
    interpreter.setCallback(APICall::logLevel,
                            [](const std::string& body) -> APIResponse { throw http_not_implemented(body); });
    for (const char* url : {"/backup", "/config", "/logLevel"}) {
        std::string type;
        std::string text;
        interpreter.interpret(7, "10.0.0.1", "POST", url, {}, endless, type, text);
        EXPECT_EQ(text, cut);
    }
    EXPECT_EQ(record.count(4, "DATA: " + cut), 3);
    EXPECT_TRUE(record.has(2, "Bad API request for backup: " + cut));
    EXPECT_TRUE(record.has(1, "Internal server error on request configSet: " + cut));
    EXPECT_TRUE(record.has(2, "API request for logLevel is not implemented on this OS: " + cut));
    std::string type;
    std::string text;
    interpreter.interpret(7, "10.0.0.1", endless, endless, {}, "", type, text);
    EXPECT_TRUE(record.has(4, "METHOD: " + cut));
    EXPECT_TRUE(record.has(4, "URL: " + cut));
}

/// The response contains control characters as the client sent them; the log gets a single line without them.
TEST_F(HTTPInterpreterTest, LogGetsNoControlCharacters) {
    answerAll();
    interpreter.setCallback(APICall::backup, [](const std::string& body) -> APIResponse {
        throw exception::bad_request("not " + body);
    });
    EXPECT_EQ(request("POST", "/backup", "a\nb\x1b").response, "not a\nb\x1b");
    EXPECT_TRUE(record.has(4, "DATA: a\\nb\\x1b"));
    EXPECT_TRUE(record.has(2, "Bad API request for backup: not a\\nb\\x1b"));
    EXPECT_EQ(request("PO\tST", "/ba\nckup").status, 400);
    EXPECT_TRUE(record.has(4, "METHOD: PO\\tST"));
    EXPECT_TRUE(record.has(4, "URL: /ba\\nckup"));
}

TEST_F(HTTPInterpreterTest, OtherExceptionsPassOn) {
    struct Strange {};
    interpreter.setCallback(APICall::host, []() -> APIResponse { throw Strange(); });
    EXPECT_THROW(request("GET", "/host"), Strange);
}

TEST_F(HTTPInterpreterTest, WithoutAnAuthorizationFunctionNobodyIsJudged) {
    HTTPInterpreter judgeless(record.logger, security.logger, {});
    judgeless.setCallback(APICall::host, [] { return APIResponse{}; });
    judgeless.setCallback(APICall::pair, [] { return APIResponse{}; });
    std::string contentType;
    std::string response;
    EXPECT_THROW(judgeless.interpret(1, "", "GET", "/host", {}, "", contentType, response),
                 std::bad_function_call);
    EXPECT_EQ(judgeless.interpret(1, "", "POST", "/pair", {}, "", contentType, response), 200);
}

} // namespace
} // namespace agent::ordak
