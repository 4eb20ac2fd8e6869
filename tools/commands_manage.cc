// Commands that change the target's layout: init, mkdir, rm, purge, cache.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>

#include "backup/error.h"
#include "commands.h"
#include "failure.h"
#include "output_format.h"
#include "remote_tree.h"
#include "stored_index.h"

namespace gdhost {

using namespace TAVO::Backup;

int runInit(Session& s) {
    std::string const& container = s.destination.container;
    std::string const& target = s.destination.target;
    if (!s.agent.createContainer(container)) {
        return reportFailure("init: container", container, getError(), Wanted::kFolder);
    }
    // Paths the engine hands an agent are relative to the target folder, so
    // the target folder itself is made with the target id set aside.
    s.agent.setTargetId("");
    bool made = s.agent.createDir(target);
    s.agent.setTargetId(target);
    if (!made) return reportFailure("init: target folder", target, getError(), Wanted::kFolder);
    printf("ready: /%s/%s\n", container.c_str(), target.c_str());
    return kExitOk;
}

int runMkdir(Session& s) {
    std::string path = remotePath(s.path(0));
    // Making a folder that is there succeeds in silence, as the engine wants;
    // a person who asks hears of it.
    FileInfo existing(path);
    if (s.args.verbose && s.agent.stat(path, existing) && existing.isDirType()) {
        fprintf(stderr, "gdrive_host: mkdir %s: already there\n", path.c_str());
    }
    bool ok = s.args.parents ? makeRemoteFolders(s.agent, path) : s.agent.createDir(path);
    return ok ? kExitOk : reportFailure("mkdir", path, getError(), Wanted::kFolder);
}

int runRm(Session& s) {
    std::string path = remotePath(s.path(0));
    FileInfo info(path);
    // Removing a missing file counts as done for the engine; a person wants to hear.
    if (!s.agent.stat(path, info)) return reportFailure("rm", path, getError(), Wanted::kFile);
    if (info.isDirType()) {
        return reportProblem("rm " + path + ": is a folder; use purge to remove a tree",
                             kExitUsage);
    }
    return s.agent.removeFile(path) ? kExitOk
                                    : reportFailure("rm", path, getError(), Wanted::kFile);
}

int runPurge(Session& s) {
    std::string path = remotePath(s.path(0));
    if (path.empty()) {
        return reportProblem(
            "purge /: the target folder itself is not purged; purge the folders "
            "in it one by one",
            kExitUsage);
    }
    if (!s.args.force && !isatty(STDIN_FILENO)) {
        return reportProblem(
            "purge " + path + ": nobody to ask (stdin is not a terminal); use --force", kExitUsage);
    }
    FileInfo info(path);
    if (!s.agent.stat(path, info)) return reportFailure("purge", path, getError(), Wanted::kFolder);
    if (!info.isDirType()) {
        return reportProblem("purge " + path + ": not a folder; use rm for a file", kExitUsage);
    }
    if (!s.args.force) {
        printf("remove %s and everything below it? [y/N] ", path.c_str());
        fflush(stdout);
        std::string answer;
        if (!std::getline(std::cin, answer) || (answer != "y" && answer != "yes")) {
            printf("nothing removed\n");
            return kExitOk;
        }
    }
    return s.agent.removeDirRecursive(path)
               ? kExitOk
               : reportFailure("purge", path, getError(), Wanted::kFolder);
}

namespace {

// Lines in the node cache file (one object per line); -1 when it is missing.
long cacheLines(std::string const& file) {
    std::ifstream in(file);
    if (!in) return -1;
    long lines = 0;
    for (std::string line; std::getline(in, line);) ++lines;
    return lines;
}

}  // namespace

int runCache(Session& s) {
    std::string const file = nodeCacheFile(s.destination);
    std::string const& action = s.args.action;
    if (action == "show") {
        long lines = cacheLines(file);
        if (lines < 0) {
            printf("%s: no node cache yet\n", file.c_str());
        } else {
            printf("%s: %ld lines, %s\n", file.c_str(), lines,
                   humanBytes(std::ifstream(file, std::ios::ate).tellg()).c_str());
        }
        return kExitOk;
    }
    if (action == "drop") {
        // The stored index goes with it: it describes what that cache knew.
        std::string const index = StoredIndex::fileFor(file);
        if ((unlink(file.c_str()) != 0 && errno != ENOENT) ||
            (unlink(index.c_str()) != 0 && errno != ENOENT)) {
            return reportProblem("cache drop: cannot remove " + file, kExitError);
        }
        printf("node cache dropped; the next run resolves paths from the service\n");
        return kExitOk;
    }
    if (action == "check") {
        long before = cacheLines(file);
        s.agent.checkCache();
        s.agent.flushCache();
        long after = cacheLines(file);
        // A mismatch makes the agent drop every entry it held.
        if (before > 1 && after <= 1) {
            printf("node cache did not match the service and was dropped\n");
        } else {
            printf("node cache matches the service (%ld lines)\n", after < 0 ? 0 : after);
        }
        return kExitOk;
    }
    return s.agent.flushCache() ? kExitOk
                                : reportFailure("cache flush", file, getError(), Wanted::kFile);
}

}  // namespace gdhost
