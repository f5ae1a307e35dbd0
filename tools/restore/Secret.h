#pragma once

#include <optional>
#include <string>

namespace restore {

/// Where a password or a secret comes from. Never the command line, which everybody on the machine can read.
struct SecretSource {
    std::optional<std::string> file; ///< whose first line it is
};

/// The name of the environment variable that is taken where no file is named.
inline constexpr const char* secretVariable = "BEK_RESTORE_SECRET";

/// From the file, else from the environment, else asked for on the terminal, without showing what is typed.
/// `what` tells what it is for. Throws std::runtime_error if there is none, or if the file can't be read.
std::string findSecret(const SecretSource& source, const std::string& what);

} // namespace restore
