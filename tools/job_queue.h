// The jobs a worker pool has yet to hand out, kept by the folder they work
// in. A drive agent trusts a folder's place for a while once the service
// has confirmed it, so a worker that stays in one folder asks for it once;
// spread over every worker, each folder would be confirmed by each of them.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace gdhost {

class JobQueue {
  public:
    // Queues `job`. A job with a string "group" (the folder it works in) is
    // grouped; one without is handed out first, in the order queued.
    void add(Json::Value job);
    // Queues `job` to be handed out before any other.
    void putBack(Json::Value job);
    // Takes out the queued job with the "op" and "remote" of `like`; a null
    // value when there is none.
    Json::Value takeLike(Json::Value const& like);
    bool empty() const { return _size == 0; }
    size_t size() const { return _size; }
    // Whether every queued job is a folder's listing.
    bool onlyListings() const { return _listings == _size; }

    // The next job for a worker last in folder `home` while the other workers
    // are in `elsewhere`, where `known` are the folders the worker's agent
    // knows (made or listed: it asks nothing to work there): an ungrouped
    // one (the first whose "near" folder is known, else the first), else one
    // of `home`, else one of the first known folder that no other worker is
    // in, else of the first folder no other worker is in, else of the known
    // folder with the most jobs left, else of the folder with the most jobs
    // left for each worker in it, when that is more than a newcomer's
    // confirmations are worth or `anyway`. A null value when the worker had
    // better wait; never call it when empty.
    Json::Value take(std::string const& home, std::vector<std::string> const& elsewhere,
                     bool anyway, std::set<std::string> const& known = {});

  private:
    Json::Value takeFrom(std::string const& group);
    // Counts `job` in or out of the queue.
    void counted(Json::Value const& job, bool in);

    std::deque<Json::Value> _ungrouped;
    std::map<std::string, std::deque<Json::Value>> _groups;
    std::deque<std::string> _order;  // groups as first queued; emptied ones dropped lazily
    size_t _size = 0;
    size_t _listings = 0;  // of them
};

}  // namespace gdhost
