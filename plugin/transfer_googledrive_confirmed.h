// The folders whose placement (name and parent, up to the Drive root) the
// service confirmed lately. A confirmation is trusted for a minute: a backup
// rotation that deletes many files in a few folders asks for each folder about
// once a minute, and a folder that another client moves is acted on for at
// most a minute after the plug-in last saw it in place.
#pragma once

#include <chrono>
#include <cstdlib>
#include <string>
#include <unordered_map>

namespace TAVO {
namespace Backup {

class ConfirmedFolders {
  public:
    using Clock = std::chrono::steady_clock;

    // TAVO_PLACEMENT_TRUST_MS replaces the minute (0: every folder is asked
    // every time, as the fault sweep wants).
    ConfirmedFolders() {
        char const* ms = std::getenv("TAVO_PLACEMENT_TRUST_MS");
        if (ms != nullptr && *ms != '\0') _trust = std::chrono::milliseconds(std::atol(ms));
    }

    // The service has just shown folder `id` in its place.
    void confirm(std::string const& id) { _seen[id] = Clock::now(); }
    // True when `id` was confirmed within the trusted time.
    bool trusted(std::string const& id) const {
        auto it = _seen.find(id);
        return it != _seen.end() && Clock::now() - it->second < _trust;
    }
    // `id` is gone or elsewhere: ask next time.
    void forget(std::string const& id) { _seen.erase(id); }

  private:
    Clock::duration _trust = std::chrono::seconds(60);
    std::unordered_map<std::string, Clock::time_point> _seen;
};

}  // namespace Backup
}  // namespace TAVO
