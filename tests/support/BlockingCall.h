#pragma once

#include <future>

namespace agent::test {

/// A function object whose call blocks until another thread calls release(). It can be called once.
class BlockingCall {
public:
    void operator()() {
        entered.set_value();
        released.get_future().wait();
    }
    void waitUntilEntered() { entered.get_future().wait(); }
    void release() { released.set_value(); }

private:
    std::promise<void> entered;
    std::promise<void> released;
};

} // namespace agent::test
