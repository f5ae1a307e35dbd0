#pragma once

#include "core/script/ICommandUtility.h"
#include "core/script/IQuiesce.h"
#include "info/log/Logger.h"

#include <memory>

namespace agent::core::script {

/// Finds the quiesce scripts and runs one, with its output in the log.
/// Owns:    nothing; logger and command utility must outlive it.
/// Threads: as IQuiesce; see UnixCommandStream for why one script at a time.
/// Fails:   `runScript` with std::runtime_error if there is no such script, or one that somebody other than
///          root could have written; std::logic_error if it couldn't be started; PosixError if its output
///          can't be read; `getScripts` with PosixError if the directory can't be read. In every case the
///          script has been killed and reaped.
///
/// The time-out covers the waits for output. Since a script could spend its time outside of those, by
/// printing without pause, a second after the time-out the run ends in any case, and what it has printed but
/// is not in the log yet is left out.
///
/// The path and the mode go through the shell as they stand, so a name with blanks or the shell's special
/// characters doesn't name its file. A line is logged up to its first NUL byte, and its first 64 KiB only.
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
