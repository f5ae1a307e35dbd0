#pragma once

namespace agent::test {

/// Decides which call of a decorator fails: call `number`, counting from 1 every operation that can fail. A
/// test makes call 1, 2, 3… fail in turn until no call fails any more. 0 never fails.
class FailingCall {
public:
    explicit FailingCall(int number) : number(number) {}

    /// To be called once for each operation. True if this operation is to fail.
    bool nextCallFails() { return ++calls == number; }

    /// True once the failing call has happened.
    [[nodiscard]] bool hasHappened() const { return number > 0 && calls >= number; }

private:
    int number;
    int calls = 0;
};

} // namespace agent::test
