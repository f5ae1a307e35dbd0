#pragma once

namespace agent {

/// A long-running service of the agent.
/// Owns:    its own threads; `stop` returns when they have ended.
/// Threads: one thread calls `start` and one calls `stop`, never at the same time.
/// Fails:   both throw; a service whose `start` threw counts as not started.
class IService {
public:
    virtual ~IService() = default;
    virtual void start() = 0;
    virtual void stop() = 0;
};

} // namespace agent
