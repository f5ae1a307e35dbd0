#pragma once

#include <optional>
#include <string>

namespace restore {

/// Where a password or a secret comes from: never the command line, which every user of the machine can read.
struct SecretSource {
    std::optional<std::string> file; ///< its first line is the secret
};

/// The environment variable that is used if no file is named.
inline constexpr const char* secretVariable = "BEK_RESTORE_SECRET";

/// Reads the secret from the file, else from the environment, else from the terminal, without echo. `what` is
/// the prompt. Throws std::runtime_error if there is no secret, or if the file can't be read.
std::string findSecret(const SecretSource& source, const std::string& what);

} // namespace restore
