#include "job_queue.h"

#include <algorithm>

namespace gdhost {

void JobQueue::add(Json::Value job) {
    ++_size;
    Json::Value const& group = job["group"];
    if (!group.isString()) {
        _ungrouped.push_back(std::move(job));
        return;
    }
    auto& jobs = _groups[group.asString()];
    if (jobs.empty()) _order.push_back(group.asString());
    jobs.push_back(std::move(job));
}

void JobQueue::putBack(Json::Value job) {
    ++_size;
    _ungrouped.push_front(std::move(job));
}

Json::Value JobQueue::takeLike(Json::Value const& like) {
    auto same = [&](Json::Value const& job) {
        return job["op"] == like["op"] && job["remote"] == like["remote"];
    };
    auto takeOut = [&](std::deque<Json::Value>& jobs) {
        auto found = std::find_if(jobs.begin(), jobs.end(), same);
        if (found == jobs.end()) return Json::Value();
        Json::Value job = std::move(*found);
        jobs.erase(found);
        --_size;
        return job;
    };
    Json::Value job = takeOut(_ungrouped);
    auto group = like["group"].isString() ? _groups.find(like["group"].asString()) : _groups.end();
    if (job.isNull() && group != _groups.end()) {
        job = takeOut(group->second);
        if (group->second.empty()) _groups.erase(group);
    }
    return job;
}

Json::Value JobQueue::takeFrom(std::string const& group) {
    auto found = _groups.find(group);
    Json::Value job = std::move(found->second.front());
    found->second.pop_front();
    if (found->second.empty()) _groups.erase(found);
    --_size;
    return job;
}

Json::Value JobQueue::take(std::string const& home, std::vector<std::string> const& elsewhere,
                           bool anyway) {
    if (!_ungrouped.empty()) {
        Json::Value job = std::move(_ungrouped.front());
        _ungrouped.pop_front();
        --_size;
        return job;
    }
    if (_groups.count(home)) return takeFrom(home);
    // A worker new to a folder first confirms its place (a request or a few),
    // which the one already there need not: it joins only a folder with
    // enough left for each worker in it.
    size_t constexpr kShareAbove = 4;
    std::string busiest;
    size_t most = 0, sharing = 1;
    for (auto it = _order.begin(); it != _order.end();) {
        auto group = _groups.find(*it);
        if (group == _groups.end()) {
            it = _order.erase(it);
            continue;
        }
        size_t const there =
            static_cast<size_t>(std::count(elsewhere.begin(), elsewhere.end(), *it));
        if (there == 0) return takeFrom(*it);
        if (group->second.size() * sharing > most * there) {
            most = group->second.size();
            sharing = there;
            busiest = *it;
        }
        ++it;
    }
    if (!anyway && most <= kShareAbove * sharing) return Json::Value();
    return takeFrom(busiest);
}

}  // namespace gdhost
