#pragma once

#include "common/Exceptions.h"

#include <curl/curl.h>
#include <string>

namespace agent {

/// A failure of libcurl: the failed operation, and the library's error code.
class CURLError : public exception::generic_library_error<CURLcode> {
public:
    CURLError(const std::string& message, CURLcode code)
        : generic_library_error(message, "CURL", code,
                                [](CURLcode failed) -> std::string { return curl_easy_strerror(failed); }) {}
};

} // namespace agent
