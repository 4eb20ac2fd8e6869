// The folders whose every child the node cache holds, so that a name the
// cache lacks there is known to be absent without asking the service: the
// folders this agent made (what is in them it put there itself), and the
// folders it listed whole within the last minute. Drive's listings lag
// behind writes as its name lookups do, so a listing that recent knows what
// a lookup would; what neither sees is another client's object of the same
// name made since.
#pragma once

#include <chrono>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace TAVO {
namespace Backup {

class WholeFolders {
  public:
    using Clock = std::chrono::steady_clock;

    // TAVO_LISTING_TRUST_MS replaces the minute (0: a listing never stands
    // for a lookup).
    WholeFolders() {
        char const* ms = std::getenv("TAVO_LISTING_TRUST_MS");
        if (ms != nullptr && *ms != '\0') _trust = std::chrono::milliseconds(std::atol(ms));
    }

    // This agent has just made folder `id`: whole for the agent's life.
    void made(std::string const& id) { _made.insert(id); }
    // The service has just listed every child of folder `id`.
    void listed(std::string const& id) {
        if (_made.count(id) == 0) _listed[id] = Clock::now();
    }
    // True when every child of `id` is in the node cache.
    bool whole(std::string const& id) const {
        if (_made.count(id) != 0) return true;
        auto it = _listed.find(id);
        return it != _listed.end() && Clock::now() - it->second < _trust;
    }
    // What the cache holds of `id` may be incomplete: ask next time.
    void forget(std::string const& id) {
        _made.erase(id);
        _listed.erase(id);
    }
    void clear() {
        _made.clear();
        _listed.clear();
    }

  private:
    Clock::duration _trust = std::chrono::seconds(60);
    std::unordered_set<std::string> _made;
    std::unordered_map<std::string, Clock::time_point> _listed;
};

}  // namespace Backup
}  // namespace TAVO
