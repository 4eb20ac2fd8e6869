#include "backup/path_check.h"

namespace TAVO {
namespace Backup {
namespace {

const size_t kMaxPath = 4095;
const size_t kMaxComponent = 255;

// NUL, "." / ".." components, over-long components or paths. Empty components
// (doubled slashes) are tolerated: the remote side decides what they mean.
bool passesCommonRules(std::string const& path) {
    if (path.size() > kMaxPath || path.find('\0') != std::string::npos) return false;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        size_t len = slash - start;
        if (len > kMaxComponent) return false;
        if (len == 1 && path[start] == '.') return false;
        if (len == 2 && path.compare(start, 2, "..") == 0) return false;
        start = slash + 1;
    }
    return true;
}

bool isTop(std::string const& path) {
    if (path == "." || path == "./") return true;
    return path.find_first_not_of('/') == std::string::npos;
}

}  // namespace

bool isValidRelativePath(std::string const& path, bool allowTop) {
    if (isTop(path)) return allowTop;
    if (path[0] == '/') return false;
    return passesCommonRules(path);
}

bool isValidFileRelativePath(std::string const& path, bool allowLeadingSlash) {
    std::string rest = path;
    if (allowLeadingSlash && !rest.empty() && rest[0] == '/') rest.erase(0, 1);
    if (isTop(rest) || rest[0] == '/' || rest.back() == '/') return false;
    return passesCommonRules(rest);
}

bool isValidFileLocalPath(std::string const& path, bool mustBeAbsolute) {
    if (path.empty() || path.back() == '/') return false;
    if (mustBeAbsolute && path[0] != '/') return false;
    return passesCommonRules(path);
}

}  // namespace Backup
}  // namespace TAVO
