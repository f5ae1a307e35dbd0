#pragma once

#include <functional>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>

/// The agent's exceptions. They are thrown by value and caught by reference. bad_request fails one API
/// request; transport_connection_error fails one backup, and the backup's status shows it separately; every
/// other exception fails the current operation with its text.
namespace agent::exception {

/// The caller's request cannot be served; the HTTP layer answers with a client error.
class bad_request : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

/// A remote service sent something unusable.
class bad_response : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The remote target of a backup cannot be reached, or the connection to it is lost.
class transport_connection_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Base class for the failures of third-party libraries.
class library_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A library failure that carries the library's own code. `what()` reads
///   MESSAGE: TRANSLATED | ERROR(LIBRARY) : CODE (0xHEX)
/// An empty translator gives "Unknown error" for TRANSLATED.
template <typename Code>
class generic_library_error : public library_error {
public:
    using Translator = std::function<std::string(Code)>;

    generic_library_error(const std::string& message, const std::string& libraryName, Code code,
                          const Translator& translator)
        : library_error(compose(message, libraryName, code, translator)), storedCode(code) {}

    [[nodiscard]] Code code() const noexcept { return storedCode; }

private:
    static std::string compose(const std::string& message, const std::string& libraryName, Code code,
                               const Translator& translator) {
        std::ostringstream text;
        text << message << ": " << (translator ? translator(code) : "Unknown error") << " | ERROR("
             << libraryName << ") : " << code << " (0x" << std::hex << code << ")";
        return text.str();
    }

    Code storedCode;
};

} // namespace agent::exception
