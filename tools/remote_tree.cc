#include "remote_tree.h"

#include <algorithm>
#include <cstdio>
#include <list>
#include <sstream>

#include "backup/error.h"
#include "failure.h"
#include "interrupt.h"
#include "plugin_log.h"

namespace gdhost {

using namespace TAVO::Backup;

std::string remotePath(std::string const& typed) {
    std::stringstream parts(typed);
    std::string part, path;
    while (std::getline(parts, part, '/')) {
        if (part.empty() || part == ".") continue;
        if (part == "..")
            throw BadRemotePath(typed + ": a path in the target cannot go up (\"..\")");
        path = joinPath(path, part);
    }
    return path;
}

std::string joinPath(std::string const& a, std::string const& b) {
    if (a.empty()) return b;
    if (b.empty()) return a;
    return a + "/" + b;
}

std::string parentPath(std::string const& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

namespace {

typedef std::function<bool(std::string const&)> Enter;

bool walkFolder(TransferAgent& agent, std::string const& top, std::string const& folder,
                FolderVisitor const& visit, bool recursive, Enter const& enter) {
    if (interrupted()) {
        setError(ERR_CANCELED);
        return false;
    }
    std::list<FileInfo> listed;
    if (!agent.listDir(joinPath(top, folder), listed)) return false;
    std::vector<FileInfo> children(listed.begin(), listed.end());
    std::sort(children.begin(), children.end(),
              [](FileInfo const& a, FileInfo const& b) { return a.getRpath() < b.getRpath(); });
    if (!visit(folder, children)) {
        setError(ERR_GENERAL);
        return false;
    }
    for (size_t i = 0; i < children.size(); ++i) {
        std::string const& name = children[i].getRpath();
        bool shared = (i > 0 && children[i - 1].getRpath() == name) ||
                      (i + 1 < children.size() && children[i + 1].getRpath() == name);
        if (!recursive || !children[i].isDirType() || shared) continue;
        std::string const below = joinPath(folder, name);
        if ((!enter || enter(below)) && !walkFolder(agent, top, below, visit, true, enter))
            return false;
    }
    return true;
}

}  // namespace

bool walkRemoteTree(TransferAgent& agent, std::string const& top, FolderVisitor const& visit,
                    bool recursive, Enter const& enter) {
    return walkFolder(agent, top, "", visit, recursive, enter);
}

bool remoteEntries(TransferAgent& agent, std::string const& top, bool missingIsEmpty,
                   std::map<std::string, FileInfo>& entries, std::function<void()> const& onFolder,
                   Enter const& enter) {
    bool ok = walkRemoteTree(
        agent, top,
        [&](std::string const& folder, std::vector<FileInfo> const& children) {
            for (auto const& child : children) entries[joinPath(folder, child.getRpath())] = child;
            if (onFolder) onFolder();
            return true;
        },
        true, enter);
    return ok || (missingIsEmpty && getError() == ERR_REMOTE_NOT_FOUND);
}

bool createFolderOnceMore(TransferAgent& agent, std::string const& path) {
    if (agent.createDir(path)) return true;
    Failure const failure = describeFailure(getError(), Wanted::kFolder);
    if (interrupted() || !failure.passing) return false;
    fprintf(stderr, "gdrive_host: asking once more for folder %s (%s)\n", path.c_str(),
            failure.words.c_str());
    beginOperation(path);
    return agent.createDir(path);
}

bool makeRemoteFolders(TransferAgent& agent, std::string const& path) {
    std::string prefix;
    std::stringstream parts(path);
    std::string part;
    while (std::getline(parts, part, '/')) {
        prefix = joinPath(prefix, part);
        if (!createFolderOnceMore(agent, prefix)) return false;
    }
    return true;
}

}  // namespace gdhost
