#include "ordak/CertificateService.h"

#include "ordak/CURLError.h"

#include <array>
#include <memory>
#include <utility>

namespace agent::ordak {

namespace {

/// Initialises libcurl, and releases it at the end of the scope.
class CurlLibrary {
public:
    CurlLibrary() {
        if (const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK) {
            throw CURLError("Error during curl_global_init", code);
        }
    }
    CurlLibrary(const CurlLibrary&) = delete;
    CurlLibrary& operator=(const CurlLibrary&) = delete;
    ~CurlLibrary() { curl_global_cleanup(); }
};

class Headers {
public:
    void add(const char* header) {
        curl_slist* const longer = curl_slist_append(list.get(), header);
        if (longer == nullptr) {
            throw CURLError("Error during curl_slist_append", CURLE_OUT_OF_MEMORY);
        }
        static_cast<void>(list.release()); // part of the longer list
        list.reset(longer);
    }
    [[nodiscard]] curl_slist* get() const noexcept { return list.get(); }

private:
    struct Release {
        void operator()(curl_slist* owned) const noexcept { curl_slist_free_all(owned); }
    };
    std::unique_ptr<curl_slist, Release> list;
};

/// Collects the body of an answer, up to a limit.
struct Body {
    std::size_t limit;
    std::string text;
    bool tooLong = false;

    /// libcurl calls this for each piece. Any return value other than the piece's length ends the transfer.
    static std::size_t append(const char* piece, std::size_t size, std::size_t count,
                              void* closure) noexcept {
        Body& body = *static_cast<Body*>(closure);
        const std::size_t length = size * count;
        if (length > body.limit - body.text.size()) {
            body.tooLong = true;
            return 0;
        }
        try {
            body.text.append(piece, length);
        } catch (const std::exception&) {
            return 0; // an exception must not pass through libcurl's C code, which reports a failed write
        }
        return length;
    }
};

/// One transfer and its settings.
class Transfer {
public:
    Transfer() : handle(curl_easy_init(), &curl_easy_cleanup) {
        if (!handle) {
            throw CURLError("Error during curl_easy_init", CURLE_FAILED_INIT);
        }
        set(CURLOPT_ERRORBUFFER, details.data());
    }

    template <typename Value>
    void set(CURLoption option, Value value) {
        if (const CURLcode code = curl_easy_setopt(handle.get(), option, value); code != CURLE_OK) {
            throw CURLError("Error during curl_easy_setopt", code);
        }
    }

    CURLcode perform() { return curl_easy_perform(handle.get()); }

    /// The library's own error message; may be empty.
    [[nodiscard]] std::string failure() const { return details.data(); }

    [[nodiscard]] long status() const {
        long value = 0;
        curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &value);
        return value;
    }

private:
    std::array<char, CURL_ERROR_SIZE> details{}; // the handle writes to it until it is destroyed
    std::shared_ptr<CURL> handle;
};

void limitTrust(Transfer& transfer) {
    transfer.set(CURLOPT_PROTOCOLS_STR, "https");
    transfer.set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    transfer.set(CURLOPT_SSL_VERIFYPEER, 1L);
    transfer.set(CURLOPT_SSL_VERIFYHOST, 2L);
    transfer.set(CURLOPT_FOLLOWLOCATION, 0L);
    transfer.set(CURLOPT_PROXY, ""); // not from the environment either
}

void limitTime(Transfer& transfer, const CertificateServiceLimits& limits) {
    transfer.set(CURLOPT_NOSIGNAL, 1L); // libcurl must not touch the agent's signal handlers
    transfer.set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.connect.count()));
    transfer.set(CURLOPT_TIMEOUT_MS, static_cast<long>(limits.total.count()));
}

} // namespace

CertificateService::CertificateService(const std::string& host, CertificateServiceLimits limits)
    : url("https://" + host + "/certApi.php"), limits(limits) {}

/// Initialises libcurl for each call: the agent only needs it while it has no certificates yet.
ICertificateService::Answer CertificateService::put(const std::string& action, const std::string& json) {
    const CurlLibrary library;
    Headers headers;
    headers.add("Content-Type: application/json");
    headers.add("Accept: application/json");
    headers.add("charsets: utf-8");
    Body body{limits.answerBytes, {}};
    Transfer transfer;
    limitTrust(transfer);
    limitTime(transfer, limits);
    transfer.set(CURLOPT_URL, url.c_str());
    transfer.set(CURLOPT_CUSTOMREQUEST, "PUT");
    transfer.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(json.size()));
    transfer.set(CURLOPT_POSTFIELDS, json.c_str());
    transfer.set(CURLOPT_HTTPHEADER, headers.get());
    transfer.set(CURLOPT_WRITEFUNCTION, &Body::append);
    transfer.set(CURLOPT_WRITEDATA, &body);

    const CURLcode code = transfer.perform();
    if (body.tooLong) {
        throw exception::bad_response("curl request " + action + " response is larger than " +
                                      std::to_string(limits.answerBytes) + " bytes");
    }
    if (code != CURLE_OK) {
        throw CURLError("curl request " + action + " to " + url + " failed (" + transfer.failure() + ")",
                        code);
    }
    return {transfer.status(), std::move(body.text)};
}

} // namespace agent::ordak
