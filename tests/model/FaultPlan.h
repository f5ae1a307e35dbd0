#pragma once

#include <cstdint>

namespace agent::model {

/// A fault in a backup, and the step at which it happens. A step is: a call of the driver (once before and
/// once after its effect), a system call on a file, or a point at which the backup can be cancelled.
struct Fault {
    enum class Kind { none, kill, fail, diskFull };
    Kind kind = Kind::none;
    std::uint32_t at = 0; ///< number of the step, counted from 1
};

enum class Step { call, readFile, writeFile };

/// The exit status of a process that a fault has killed.
constexpr int killedStatus = 77;

/// Starts counting steps, from 1, and plans the fault.
void arm(const Fault& fault);
/// Cancels the planned fault. Returns how many steps there were.
std::uint32_t disarm();
/// Counts a step. Returns true if the step must fail; doesn't return if the process is killed here.
bool fails(Step step);

/// While an object exists, nothing fails and no steps are counted: for what the agent doesn't do itself.
class FaultsSuspended {
public:
    FaultsSuspended();
    FaultsSuspended(const FaultsSuspended&) = delete;
    FaultsSuspended& operator=(const FaultsSuspended&) = delete;
    ~FaultsSuspended();

private:
    bool wasArmed;
};

} // namespace agent::model
