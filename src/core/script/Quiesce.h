#pragma once

#include "core/script/ICommandUtility.h"
#include "core/script/IQuiesce.h"
#include "info/log/Logger.h"

#include <memory>

namespace agent::core::script {

/// Finds the quiesce scripts and runs one, with its output in the log.
/// Owns:    nothing; logger and command utility must outlive it.
/// Threads: one caller of `runScript` at a time, because UnixCommandStream changes the process's SIGCHLD
///          action; `getScripts` from any.
/// Fails:   `runScript` throws std::runtime_error if there is no such script, or if users other than root
///          could have written it; std::logic_error if it can't be started; PosixError if its output can't be
///          read. In every case the script has been killed and reaped. `getScripts` throws PosixError if the
///          directory can't be read.
///
/// The time-out covers the waits for output. A script that prints without pause spends its time outside these
/// waits. So the run always ends one second after the time-out, and output that hasn't been logged by then is
/// dropped.
///
/// The path and the mode are passed to the shell unquoted, so a script whose name has blanks or special
/// characters of the shell can't be run. Only the first 64 KiB of each line are logged, and only up to the
/// first NUL byte.
class Quiesce : public IQuiesce {
public:
    Quiesce(info::Logger& logger, ICommandUtility& commandUtility);

    std::set<std::string> getScripts(const std::string& directory) override;
    void runScript(const std::string& script, std::uint32_t timeoutSeconds, bool isPre) override;

private:
    std::unique_ptr<ICommandStream> start(const std::string& commandLine);
    void logOutput(const std::string& path, ICommandStream& stream, std::uint32_t timeoutSeconds);

    info::Logger& logger;
    ICommandUtility& commandUtility;
};

} // namespace agent::core::script
