// Commands that look: ls, tree, stat, size, about, containers, dupes.
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <list>

#include "backup/error.h"
#include "commands.h"
#include "failure.h"
#include "output_format.h"
#include "remote_tree.h"

namespace gdhost {

using namespace TAVO::Backup;

namespace {

int listingFailure(Session const& s, char const* what, std::string const& path) {
    int error = getError();
    if (!path.empty()) return reportFailure(what, path, error, Wanted::kFolder);
    std::string const top = "/" + s.destination.container + "/" + s.destination.target;
    int code = reportFailure(what, "(the target folder " + top + ")", error, Wanted::kFolder);
    // Before the first init the target folder does not exist yet.
    if (error == ERR_REMOTE_NOT_FOUND)
        fprintf(stderr, "gdrive_host: %s is not there yet: run gdrive_host init\n", top.c_str());
    return code;
}

// A name as a listing shows it: folders end in "/", and on a terminal control
// characters are escaped so that a name cannot fake lines or move the cursor.
std::string shownName(FileInfo const& info, std::string const& name) {
    std::string shown = isatty(STDOUT_FILENO) ? escapeControls(name) : name;
    return info.isDirType() ? shown + "/" : shown;
}

// The target's top is "/" in what the tool shows.
std::string shownPath(std::string const& top) { return top.empty() ? "/" : top; }

}  // namespace

int runLs(Session& s) {
    std::string top = remotePath(s.path(0));
    Json::Value entries(Json::arrayValue);
    if (s.args.longForm && !s.args.json) printLongHeader();
    auto show = [&](FileInfo const& entry, std::string const& name) {
        if (s.args.json) {
            entries.append(entryJson(entry, name));
        } else if (s.args.longForm) {
            printLongLine(entry, name);
        } else {
            printf("%s\n", shownName(entry, name).c_str());
        }
    };
    bool ok = walkRemoteTree(
        s.agent, top,
        [&](std::string const& folder, std::vector<FileInfo> const& children) {
            for (auto const& child : children) show(child, joinPath(folder, child.getRpath()));
            return true;
        },
        s.args.recursive);
    // A file is listed as itself.
    FileInfo file(top);
    if (!ok && getError() == ERR_REMOTE_NOT_DIR && s.agent.stat(top, file)) {
        show(file, top);
        ok = true;
    }
    if (!ok) return listingFailure(s, "ls", top);
    if (s.args.json) {
        Json::Value document(Json::objectValue);
        document["path"] = shownPath(top);
        document["entries"] = entries;
        printJson(document);
    }
    return kExitOk;
}

int runTree(Session& s) {
    std::string top = remotePath(s.path(0));
    int64_t files = 0, folders = 0;
    // Depth-first, each folder's children right after it: draw by recursion
    // over the map of listings.
    std::map<std::string, std::vector<FileInfo>> listings;
    bool ok = walkRemoteTree(s.agent, top,
                             [&](std::string const& folder, std::vector<FileInfo> const& children) {
                                 listings[folder] = children;
                                 return true;
                             });
    if (!ok) return listingFailure(s, "tree", top);
    printf("%s\n", shownPath(top).c_str());
    std::function<void(std::string const&, std::string const&)> draw =
        [&](std::string const& folder, std::string const& indent) {
            auto const& children = listings[folder];
            for (size_t i = 0; i < children.size(); ++i) {
                bool last = i + 1 == children.size();
                FileInfo const& child = children[i];
                printf("%s%s%s\n", indent.c_str(), last ? "└── " : "├── ",
                       shownName(child, child.getRpath()).c_str());
                if (child.isDirType()) {
                    ++folders;
                    draw(joinPath(folder, child.getRpath()), indent + (last ? "    " : "│   "));
                } else {
                    ++files;
                }
            }
        };
    draw("", "");
    printf("\n%s, %s\n", counted(folders, "folder").c_str(), counted(files, "file").c_str());
    return kExitOk;
}

int runStat(Session& s) {
    std::string path = remotePath(s.path(0));
    FileInfo info(path);
    // The target folder is an entry of the container: stat it with the
    // target id set aside, as init makes it.
    bool ok = false;
    if (path.empty()) {
        s.agent.setTargetId("");
        ok = s.agent.stat(s.destination.target, info);
        s.agent.setTargetId(s.destination.target);
    } else {
        ok = s.agent.stat(path, info);
    }
    if (!ok) return reportFailure("stat", shownPath(path), getError(), Wanted::kFile);
    if (s.args.json) {
        printJson(entryJson(info, shownPath(path)));
    } else {
        printLongHeader();
        printLongLine(info, path);
    }
    return kExitOk;
}

int runSize(Session& s) {
    std::string top = remotePath(s.path(0));
    int64_t files = 0, folders = 0, bytes = 0;
    bool ok = walkRemoteTree(s.agent, top,
                             [&](std::string const&, std::vector<FileInfo> const& children) {
                                 for (auto const& child : children) {
                                     if (child.isDirType()) {
                                         ++folders;
                                     } else {
                                         ++files;
                                         bytes += child.getSize();
                                     }
                                 }
                                 return true;
                             });
    if (!ok) return listingFailure(s, "size", top);
    if (s.args.json) {
        Json::Value document(Json::objectValue);
        document["path"] = shownPath(top);
        document["files"] = static_cast<Json::Int64>(files);
        document["folders"] = static_cast<Json::Int64>(folders);
        document["bytes"] = static_cast<Json::Int64>(bytes);
        printJson(document);
    } else {
        printf("files:   %" PRId64 "\nfolders: %" PRId64 "\nsize:    %s (%" PRId64 " bytes)\n",
               files, folders, humanBytes(bytes).c_str(), bytes);
    }
    return kExitOk;
}

int runAbout(Session& s) {
    AccountInfo info;
    if (!s.agent.getAccountInfo(info)) {
        return reportFailure("about", "", getError(), Wanted::kFile);
    }
    // Contents stored before a quota was lowered can exceed it: nothing is free then.
    int64_t freeBytes =
        info.isUnlimitedQuota ? -1 : std::max<int64_t>(0, info.quota - info.usedSize);
    if (s.args.json) {
        Json::Value document(Json::objectValue);
        document["account"] = info.account;
        document["user"] = info.userName;
        document["used"] = static_cast<Json::Int64>(info.usedSize);
        document["unlimited"] = info.isUnlimitedQuota;
        document["quota"] =
            info.isUnlimitedQuota ? Json::Value() : Json::Value(Json::Int64(info.quota));
        document["free"] =
            info.isUnlimitedQuota ? Json::Value() : Json::Value(Json::Int64(freeBytes));
        printJson(document);
        return kExitOk;
    }
    printf("account: %s\nuser:    %s\nused:    %s\n", info.account.c_str(), info.userName.c_str(),
           humanBytes(info.usedSize).c_str());
    if (info.isUnlimitedQuota) {
        printf("quota:   unlimited\n");
    } else {
        printf("quota:   %s\nfree:    %s%s\n", humanBytes(info.quota).c_str(),
               humanBytes(freeBytes).c_str(),
               info.usedSize > info.quota
                   ? (" (over quota by " + humanBytes(info.usedSize - info.quota) + ")").c_str()
                   : "");
    }
    return kExitOk;
}

int runContainers(Session& s) {
    std::list<FileInfo> list;
    if (!s.agent.listContainer(list)) {
        return reportFailure("containers", "", getError(), Wanted::kFolder);
    }
    for (auto const& info : list) {
        if (info.isDirType()) printf("%s\n", info.getRpath().c_str());
    }
    return kExitOk;
}

int runDupes(Session& s) {
    std::string top = remotePath(s.path(0));
    int groups = 0;
    bool ok = walkRemoteTree(
        s.agent, top, [&](std::string const& folder, std::vector<FileInfo> const& children) {
            for (size_t i = 0; i < children.size();) {
                size_t end = i + 1;
                while (end < children.size() &&
                       children[end].getRpath() == children[i].getRpath()) {
                    ++end;
                }
                if (end - i > 1) {
                    if (groups++ == 0) printLongHeader();
                    for (size_t k = i; k < end; ++k) {
                        printLongLine(children[k], joinPath(folder, children[k].getRpath()));
                    }
                }
                i = end;
            }
            return true;
        });
    if (!ok) return listingFailure(s, "dupes", top);
    printf("%s held more than once\n", counted(groups, "name").c_str());
    // As check does for differences: a script can tell a clean tree.
    return groups == 0 ? kExitOk : kExitError;
}

}  // namespace gdhost
