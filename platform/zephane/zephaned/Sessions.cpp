#include "zephane/zephaned/Sessions.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace zephane {

void Sessions::setLimit(std::size_t sessions) {
    const os::Lock lock(mutex);
    limit = sessions;
}

Sessions::Number Sessions::add(Stop stop) {
    os::Lock lock(mutex);
    const Number number = ++last;
    if (!endReason.empty()) {
        const std::string why = endReason;
        lock.unlock();
        stop(why);
        return number;
    }
    Stop oldest;
    if (pending.size() == mostPending) {
        oldest = std::move(pending.begin()->second);
        pending.erase(pending.begin());
    }
    pending.emplace(number, std::move(stop));
    lock.unlock();
    if (oldest) {
        oldest("too many others want to connect");
    }
    return number;
}

bool Sessions::prove(Number number, const wire::ImageName& image) {
    const os::Lock lock(mutex);
    const auto found = pending.find(number);
    const auto sessionsOfImage =
        std::ranges::count_if(proven, [&](const auto& entry) { return entry.second.image == image; });
    if (found == pending.end() || proven.size() >= limit ||
        std::cmp_greater_equal(sessionsOfImage, mostPerImage)) {
        return false;
    }
    proven.emplace(number, Session{image, std::move(found->second)});
    pending.erase(found);
    return true;
}

void Sessions::remove(Number number) {
    const os::Lock lock(mutex);
    pending.erase(number);
    proven.erase(number);
}

void Sessions::stopAll(const std::string& why) {
    os::Lock lock(mutex);
    endReason = why;
    const std::map<Number, Stop> others = std::exchange(pending, {});
    lock.unlock();
    for (const auto& [number, stop] : others) {
        stop(why);
    }
    stopMatching([](const wire::ImageName&) { return true; }, why);
}

void Sessions::stopMatching(const std::function<bool(const wire::ImageName& image)>& matches,
                            const std::string& why) {
    std::vector<Stop> stops;
    os::Lock lock(mutex);
    for (const auto& [number, session] : proven) {
        if (matches(session.image)) {
            stops.push_back(session.stop);
        }
    }
    lock.unlock();
    for (const Stop& stop : stops) {
        stop(why);
    }
}

} // namespace zephane
