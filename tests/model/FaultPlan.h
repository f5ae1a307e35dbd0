#pragma once

#include <cstdint>

namespace agent::model {

/// What goes wrong in a backup, and at which of its steps. Steps are the calls of the driver, before and
/// after their effect, the system calls on files, and the points at which a backup can be called off.
struct Fault {
    enum class Kind { none, kill, fail, diskFull };
    Kind kind = Kind::none;
    std::uint32_t at = 0; ///< the number of the step, from 1
};

enum class Step { call, readFile, writeFile };

/// How a process ends that a fault has killed.
constexpr int killedStatus = 77;

/// From here on steps are counted, from 1, and the fault hits.
void arm(const Fault& fault);
/// Nothing goes wrong any more. Returns how many steps there were.
std::uint32_t disarm();
/// True if the step has to fail. Doesn't return if the process is killed here.
bool fails(Step step);

/// While it lives, nothing fails and no step is counted: for what isn't the agent's doing.
class Undisturbed {
public:
    Undisturbed();
    Undisturbed(const Undisturbed&) = delete;
    Undisturbed& operator=(const Undisturbed&) = delete;
    ~Undisturbed();

private:
    bool wasArmed;
};

} // namespace agent::model
