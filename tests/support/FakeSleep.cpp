#include "support/FakeSleep.h"

#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace agent::test {

namespace {

FakeSleep* newest = nullptr;

} // namespace

FakeSleep::FakeSleep(Note note) : note(std::move(note)), previous(std::exchange(newest, this)) {}

FakeSleep::~FakeSleep() {
    newest = previous;
}

int FakeSleep::sleep(const timespec& time, timespec& left) {
    note(time);
    if (interruptions == 0) {
        return 0;
    }
    --interruptions;
    left = {0, 300'000'000};
    errno = EINTR;
    return -1;
}

extern "C" int nanosleep(const timespec* requested, timespec* remaining) {
    if (newest != nullptr) {
        return newest->sleep(*requested, *remaining);
    }
    return static_cast<int>(syscall(SYS_nanosleep, requested, remaining));
}

} // namespace agent::test
