#pragma once

namespace agent::test {

/// Which call of a decorator fails: the `number`th, counting every operation that can fail from 1 on. Counts
/// on, so that a test can make call 1, 2, 3… fail until nothing fails any more. 0 never fails.
class FailingCall {
public:
    explicit FailingCall(int number) : number(number) {}

    /// To be asked once for each call; true for the one that is to fail.
    bool isNow() { return ++calls == number; }

    /// True once the call that was to fail has come.
    [[nodiscard]] bool hasCome() const { return number > 0 && calls >= number; }

private:
    int number;
    int calls = 0;
};

} // namespace agent::test
