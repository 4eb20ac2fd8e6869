#include "backup/path.h"

#include <unistd.h>

#include <climits>
#include <cstring>

namespace TAVO {
namespace Backup {
namespace Path {

std::string join(std::string const& a, std::string const& b, std::string const& c,
                 std::string const& d, std::string const& e, std::string const& f,
                 std::string const& g) {
    std::string out;
    for (std::string const* part : {&a, &b, &c, &d, &e, &f, &g}) {
        if (part->empty()) continue;
        if (out.empty()) {
            out = *part;
            continue;
        }
        size_t skip = 0;
        while (skip < part->size() && (*part)[skip] == '/') ++skip;
        if (out.back() != '/') out += '/';
        out.append(*part, skip, std::string::npos);
    }
    // "a/" + "" keeps a's trailing slash; only slashes between components are folded.
    return out;
}

bool split(std::string const& path, std::vector<std::string>& parts) {
    parts.clear();
    if (path.find('\0') != std::string::npos) return false;
    size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') --end;
    if (end == 0) return true;
    size_t start = 0;
    while (true) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos || slash >= end) {
            parts.push_back(path.substr(start, end - start));
            break;
        }
        parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
        if (start >= end) break;
    }
    return true;
}

namespace {
// Length of `path` without its trailing slashes, keeping a lone "/".
size_t trimmedLength(std::string const& path) {
    size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') --end;
    return end;
}
}  // namespace

std::string dirname(std::string const& path) {
    size_t end = trimmedLength(path);
    if (end == 0) return ".";
    if (end == 1 && path[0] == '/') return "/";
    size_t slash = path.rfind('/', end - 1);
    if (slash == std::string::npos) return ".";
    while (slash > 0 && path[slash - 1] == '/') --slash;
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string basename(std::string const& path) {
    size_t end = trimmedLength(path);
    if (end == 0) return "";
    if (end == 1 && path[0] == '/') return "/";
    size_t slash = path.rfind('/', end - 1);
    size_t start = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(start, end - start);
}

std::string absPath(std::string const& path) {
    std::string full = path;
    if (path.empty() || path[0] != '/') {
        char cwd[PATH_MAX];
        if (!getcwd(cwd, sizeof cwd)) return path;
        full = std::string(cwd) + "/" + path;
    }
    std::vector<std::string> kept;
    size_t start = 0;
    while (start <= full.size()) {
        size_t slash = full.find('/', start);
        if (slash == std::string::npos) slash = full.size();
        std::string part = full.substr(start, slash - start);
        if (part == "..") {
            if (!kept.empty()) kept.pop_back();
        } else if (!part.empty() && part != ".") {
            kept.push_back(part);
        }
        start = slash + 1;
    }
    std::string out;
    for (auto const& part : kept) out += "/" + part;
    return out.empty() ? "/" : out;
}

}  // namespace Path
}  // namespace Backup
}  // namespace TAVO
