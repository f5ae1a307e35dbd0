#include "zephane/zephaned/Sessions.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace zephane {

void Sessions::setMost(std::size_t sessions) {
    const os::Lock lock(mutex);
    most = sessions;
}

Sessions::Number Sessions::add(Stop stop) {
    os::Lock lock(mutex);
    const Number number = ++last;
    if (!end.empty()) {
        const std::string why = end;
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
    const auto ofTheImage =
        std::ranges::count_if(proven, [&](const auto& entry) { return entry.second.image == image; });
    if (found == pending.end() || proven.size() >= most ||
        std::cmp_greater_equal(ofTheImage, mostOfOneImage)) {
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
    end = why;
    const std::map<Number, Stop> others = std::exchange(pending, {});
    lock.unlock();
    for (const auto& [number, stop] : others) {
        stop(why);
    }
    stopThose([](const wire::ImageName&) { return true; }, why);
}

void Sessions::stopThose(const std::function<bool(const wire::ImageName& image)>& isMeant,
                         const std::string& why) {
    std::vector<Stop> stops;
    os::Lock lock(mutex);
    for (const auto& [number, session] : proven) {
        if (isMeant(session.image)) {
            stops.push_back(session.stop);
        }
    }
    lock.unlock();
    for (const Stop& stop : stops) {
        stop(why);
    }
}

} // namespace zephane
