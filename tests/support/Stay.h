#pragma once

#include <future>

namespace agent::test {

/// A function object whose call blocks until another thread calls leave(). It can be called once.
class Stay {
public:
    void operator()() {
        entered.set_value();
        left.get_future().wait();
    }
    void waitUntilEntered() { entered.get_future().wait(); }
    void leave() { left.set_value(); }

private:
    std::promise<void> entered;
    std::promise<void> left;
};

} // namespace agent::test
