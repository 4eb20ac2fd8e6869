// A backup destination's settings as the engine hands them to a plug-in,
// the task that runs against it, and the engine's per-target cache folders.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace TAVO {
namespace Backup {

// String options of a destination. Secrets are stored like other options
// here; the engine keeps them encrypted at rest, which is not modelled.
class OptionMap {
public:
    void set(std::string const& key, std::string const& value) { _values[key] = value; }
    void erase(std::string const& key) { _values.erase(key); }
    bool has(std::string const& key) const { return _values.count(key) != 0; }

    // The value under `key`, or `def` when the key is absent.
    std::string optString(std::string const& key, std::string const& def) const;
    // As optString, for options that hold credentials.
    std::string optSecret(std::string const& key, std::string const& def) const;
    // Copies the value under `key` into `out` and returns true when present;
    // returns false and leaves `out` untouched otherwise. `isSecret` says the
    // option holds a credential (same lookup here).
    bool optGet(std::string const& key, std::string& out, bool isSecret) const;

private:
    std::map<std::string, std::string> _values;
};

class Repository {
public:
    static char const* const SZK_REMOTE_ACCESS_TOKEN;   // "remote_access_token"
    static char const* const SZK_REMOTE_REFRESH_TOKEN;  // "remote_refresh_token"
    static char const* const SZK_REMOTE_BUCKET;         // "remote_bucket"

    OptionMap const& getOptions() const { return _options; }
    OptionMap& options() { return _options; }

    // The folder under which the engine keeps per-target cache folders; empty
    // means the destination has no cache folder.
    void setCacheRoot(std::string const& dir) { _cache_root = dir; }
    std::string const& getCacheRoot() const { return _cache_root; }

private:
    OptionMap _options;
    std::string _cache_root;
};

class Task {
public:
    explicit Task(std::string const& targetId) : _target_id(targetId) {}
    std::string const& getTargetId() const { return _target_id; }

private:
    std::string _target_id;
};

namespace TargetCache {
// The cache folder of `targetId` in `repository`: "<cache root>/<targetId>",
// created (mode 0700) when missing. Empty when the repository has no cache
// root or the folder cannot be created.
std::string getCachePath(Repository const& repository, std::string const& targetId);
}  // namespace TargetCache

// The account behind a destination, as reported by a transfer agent.
struct AccountInfo {
    std::string account;
    std::string userName;
    int64_t quota = 0;
    int64_t usedSize = 0;
    bool isUnlimitedQuota = false;
};

}  // namespace Backup
}  // namespace TAVO
