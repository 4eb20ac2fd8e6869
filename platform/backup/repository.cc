#include "backup/repository.h"

#include <sys/stat.h>

#include <cerrno>

#include "backup/path.h"

namespace TAVO {
namespace Backup {

char const* const Repository::SZK_REMOTE_ACCESS_TOKEN = "remote_access_token";
char const* const Repository::SZK_REMOTE_REFRESH_TOKEN = "remote_refresh_token";
char const* const Repository::SZK_REMOTE_BUCKET = "remote_bucket";

std::string OptionMap::optString(std::string const& key, std::string const& def) const {
    auto it = _values.find(key);
    return it == _values.end() ? def : it->second;
}

std::string OptionMap::optSecret(std::string const& key, std::string const& def) const {
    return optString(key, def);
}

bool OptionMap::optGet(std::string const& key, std::string& out, bool /*isSecret*/) const {
    auto it = _values.find(key);
    if (it == _values.end()) return false;
    out = it->second;
    return true;
}

namespace TargetCache {

namespace {
bool makeDirs(std::string const& dir) {
    if (dir.empty() || dir == "/") return true;
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    if (!makeDirs(Path::dirname(dir))) return false;
    return ::mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
}
}  // namespace

std::string getCachePath(Repository const& repository, std::string const& targetId) {
    if (repository.getCacheRoot().empty()) return "";
    std::string dir = Path::join(repository.getCacheRoot(), targetId);
    return makeDirs(dir) ? dir : "";
}

}  // namespace TargetCache
}  // namespace Backup
}  // namespace TAVO
