#include "job_queue.h"

#include <algorithm>

namespace gdhost {

void JobQueue::counted(Json::Value const& job, bool in) {
    size_t const listing = job["op"].asString() == "list" ? 1 : 0;
    if (in) {
        ++_size;
        _listings += listing;
    } else {
        --_size;
        _listings -= listing;
    }
}

void JobQueue::add(Json::Value job) {
    counted(job, true);
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
    counted(job, true);
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
        counted(job, false);
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
    counted(job, false);
    return job;
}

Json::Value JobQueue::take(std::string const& home, std::vector<std::string> const& elsewhere,
                           bool anyway, std::set<std::string> const& known) {
    if (!_ungrouped.empty()) {
        // A job beside a folder the worker made or listed costs it no lookup
        // of that folder; looking further down the queue than this would cost
        // more time than the lookup.
        size_t constexpr kLookAhead = 64;
        auto chosen = _ungrouped.begin();
        size_t const scan = std::min(kLookAhead, _ungrouped.size());
        for (size_t n = 0; n < scan && !known.empty(); ++n) {
            Json::Value const& near = _ungrouped[n]["near"];
            if (near.isString() && known.count(near.asString())) {
                chosen = _ungrouped.begin() + static_cast<std::ptrdiff_t>(n);
                break;
            }
        }
        Json::Value job = std::move(*chosen);
        _ungrouped.erase(chosen);
        counted(job, false);
        return job;
    }
    if (_groups.count(home)) return takeFrom(home);
    // A worker new to a folder first confirms its place (a request or a few),
    // which the one already there need not: it joins only a folder with
    // enough left for each worker in it, or one it knows already.
    size_t constexpr kShareAbove = 4;
    std::string busiest, firstFree, busiestKnown;
    size_t most = 0, sharing = 1, mostKnown = 0;
    for (auto it = _order.begin(); it != _order.end();) {
        auto group = _groups.find(*it);
        if (group == _groups.end()) {
            it = _order.erase(it);
            continue;
        }
        bool const isKnown = known.count(*it) > 0;
        size_t const there =
            static_cast<size_t>(std::count(elsewhere.begin(), elsewhere.end(), *it));
        if (there == 0 && isKnown) return takeFrom(*it);
        if (there == 0 && firstFree.empty()) firstFree = *it;
        if (isKnown && group->second.size() > mostKnown) {
            mostKnown = group->second.size();
            busiestKnown = *it;
        }
        if (group->second.size() * sharing > most * there) {
            most = group->second.size();
            sharing = there;
            busiest = *it;
        }
        ++it;
    }
    if (!firstFree.empty()) return takeFrom(firstFree);
    if (!busiestKnown.empty()) return takeFrom(busiestKnown);
    if (!anyway && most <= kShareAbove * sharing) return Json::Value();
    return takeFrom(busiest);
}

}  // namespace gdhost
