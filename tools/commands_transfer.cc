// Commands that move content: put, get, copy, restore, check.
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <memory>

#include "backup/error.h"
#include "backup/path.h"
#include "commands.h"
#include "failure.h"
#include "interrupt.h"
#include "local_files.h"
#include "output_format.h"
#include "parallel_tree.h"
#include "progress_line.h"
#include "remote_tree.h"
#include "workers.h"

namespace gdhost {

using namespace TAVO::Backup;

namespace {

TransferAgent::ProgressHook progressHook(ProgressLine& line) {
    return [&line](long bytes) {
        line.addBytes(bytes);
        return !interrupted();
    };
}

bool isLocalFolder(std::string const& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Checks that `local` may be read as a file; the exit code when not, else -1.
int refuseUnsendable(char const* operation, std::string const& local) {
    bool missing = false;
    std::string why = whyNotSendable(local, missing);
    if (why.empty()) return -1;
    int code = missing ? kExitFileNotFound : kExitUsage;
    return reportProblem(std::string(operation) + " " + local + ": " + why, code);
}

// Sends one local file to `remote`, counting it on `line`. The engine's
// error code is left set on failure.
bool sendOne(Session& s, std::string const& local, std::string const& remote, ProgressLine& line) {
    FileInfo info(remote);
    int64_t before = line.bytes();
    if (!s.agent.sendFile(absoluteLocalPath(local), remote, progressHook(line), true, info)) {
        return false;
    }
    line.fileDone(info.getSize() - (line.bytes() - before));
    return true;
}

bool receiveOne(Session& s, std::string const& remote, std::string const& local, int64_t size,
                ProgressLine& line) {
    FileInfo info(remote);
    int64_t before = line.bytes();
    if (!s.agent.recvFile(remote, absoluteLocalPath(local), progressHook(line), info)) {
        return false;
    }
    line.fileDone(size - (line.bytes() - before));
    return true;
}

int transferFailure(char const* operation, std::string const& path, Wanted wanted) {
    if (interrupted()) setError(ERR_CANCELED);
    return reportFailure(operation, path, getError(), wanted);
}

}  // namespace

int runPut(Session& s) {
    std::string local = s.path(0);
    int refused = refuseUnsendable("put", local);
    if (refused >= 0) return refused;
    std::string remote = remotePath(s.path(1));
    FileInfo existing(remote);
    bool intoFolder = s.path(1).empty() || s.path(1).back() == '/' || remote.empty() ||
                      (s.agent.stat(remote, existing) && existing.isDirType());
    if (intoFolder) remote = joinPath(remote, Path::basename(absoluteLocalPath(local)));
    if (!makeRemoteFolders(s.agent, Path::dirname(remote) == "." ? "" : Path::dirname(remote))) {
        return reportFailure("put: mkdir", Path::dirname(remote), getError(), Wanted::kFolder);
    }
    struct stat st;
    lstat(local.c_str(), &st);
    ProgressLine line("sent", st.st_size, 1, s.args.quiet);
    if (!sendOne(s, local, remote, line)) return transferFailure("put", remote, Wanted::kFolder);
    line.finish(" to " + remote);
    return kExitOk;
}

int runGet(Session& s) {
    std::string remote = remotePath(s.path(0));
    FileInfo info(remote);
    if (!s.agent.stat(remote, info)) return reportFailure("get", remote, getError(), Wanted::kFile);
    if (info.isDirType()) {
        return reportProblem("get " + remote + ": is a folder; use restore to fetch a tree",
                             kExitUsage);
    }
    std::string local = s.path(1);
    if (isLocalFolder(local)) local = local + "/" + Path::basename(remote);
    ProgressLine line("received", info.getSize(), 1, s.args.quiet);
    if (!receiveOne(s, remote, local, info.getSize(), line)) {
        return transferFailure("get", remote, Wanted::kFile);
    }
    line.finish(" to " + local);
    return kExitOk;
}

int runCopy(Session& s) {
    std::string localTop = s.path(0), remoteTop = remotePath(s.path(1));
    std::vector<LocalEntry> entries;
    std::vector<std::string> skipped;
    std::string error;
    if (!listLocalTree(localTop, entries, skipped, error)) {
        return reportProblem("copy " + localTop + ": " + error, kExitFolderNotFound);
    }
    for (auto const& name : skipped) {
        fprintf(stderr, "gdrive_host: copy: skipped %s (not a regular file or folder)\n",
                name.c_str());
    }
    std::map<std::string, FileInfo> remote;
    bool const parallel = transfersOf(s) > 1;
    std::string failed;
    std::unique_ptr<TreeWorkers> tree;
    if (parallel) tree.reset(new TreeWorkers(s));
    if (parallel ? !tree->list(remoteTop, true, remote, failed)
                 : !remoteEntries(s.agent, remoteTop, true, remote)) {
        return reportFailure("copy", remoteTop, getError(), Wanted::kFolder);
    }
    // Decide first, so that the progress line knows the whole amount.
    std::vector<LocalEntry> folders, files;
    int64_t unchanged = 0, bytes = 0;
    for (auto const& entry : entries) {
        auto found = remote.find(entry.rpath);
        bool present = found != remote.end();
        if (entry.isFolder) {
            if (!present || !found->second.isDirType()) folders.push_back(entry);
        } else if (present && !found->second.isDirType() && found->second.getSize() == entry.size &&
                   found->second.getChecksum() == fileMd5(localTop + "/" + entry.rpath)) {
            ++unchanged;
        } else {
            files.push_back(entry);
            bytes += entry.size;
        }
    }
    if (s.args.dryRun) {
        for (auto const& f : folders) printf("would create %s/\n", f.rpath.c_str());
        for (auto const& f : files) printf("would send %s\n", f.rpath.c_str());
        printf("%zu files (%s) to send, %" PRId64 " unchanged\n", files.size(),
               humanBytes(bytes).c_str(), unchanged);
        return kExitOk;
    }
    if (parallel) {
        std::vector<std::string> made;
        for (auto const& f : folders) made.push_back(joinPath(remoteTop, f.rpath));
        bool madeAll = tree->makeFolders(remoteTop, made, failed);
        tree.reset();  // their node cache merged before the transfers start
        if (!madeAll) return transferFailure("copy: mkdir", failed, Wanted::kFolder);
        std::vector<TransferItem> items;
        for (auto const& f : files)
            items.push_back({localTop + "/" + f.rpath, joinPath(remoteTop, f.rpath), f.size});
        ProgressLine line("sent", bytes, static_cast<int64_t>(files.size()), s.args.quiet);
        if (!transferOnWorkers(s, true, items, line, failed))
            return transferFailure("copy", failed, Wanted::kFolder);
        line.finish(", " + std::to_string(folders.size()) + " folders created, " +
                    std::to_string(unchanged) + " files unchanged");
        return kExitOk;
    }
    if (!remoteTop.empty() && !makeRemoteFolders(s.agent, remoteTop)) {
        return reportFailure("copy: mkdir", remoteTop, getError(), Wanted::kFolder);
    }
    for (auto const& f : folders) {
        if (!s.agent.createDir(joinPath(remoteTop, f.rpath))) {
            return transferFailure("copy: mkdir", joinPath(remoteTop, f.rpath), Wanted::kFolder);
        }
    }
    ProgressLine line("sent", bytes, static_cast<int64_t>(files.size()), s.args.quiet);
    for (auto const& f : files) {
        std::string remoteFile = joinPath(remoteTop, f.rpath);
        if (interrupted() || !sendOne(s, localTop + "/" + f.rpath, remoteFile, line)) {
            return transferFailure("copy", remoteFile, Wanted::kFolder);
        }
    }
    line.finish(", " + std::to_string(folders.size()) + " folders created, " +
                std::to_string(unchanged) + " files unchanged");
    return kExitOk;
}

int runRestore(Session& s) {
    std::string remoteTop = remotePath(s.path(0)), localTop = s.path(1);
    std::map<std::string, FileInfo> remote;
    bool const parallel = transfersOf(s) > 1;
    std::string failed;
    if (parallel ? !TreeWorkers(s).list(remoteTop, false, remote, failed)
                 : !remoteEntries(s.agent, remoteTop, false, remote)) {
        return reportFailure("restore", remoteTop, getError(), Wanted::kFolder);
    }
    int64_t bytes = 0, files = 0;
    for (auto const& [rpath, info] : remote) {
        if (!info.isDirType()) bytes += info.getSize(), ++files;
    }
    if (!makeLocalFolders(localTop)) {
        return reportProblem("restore: cannot create " + localTop, kExitError);
    }
    ProgressLine line("received", bytes, files, s.args.quiet);
    if (parallel) {
        // Every folder first, so that no worker writes into a missing one.
        std::vector<TransferItem> items;
        for (auto const& [rpath, info] : remote) {
            std::string local = localTop + "/" + rpath;
            if (!info.isDirType()) {
                items.push_back({local, joinPath(remoteTop, rpath), info.getSize()});
            } else if (!makeLocalFolders(local)) {
                return reportProblem("restore: cannot create " + local, kExitError);
            }
        }
        if (!transferOnWorkers(s, false, items, line, failed))
            return transferFailure("restore", failed, Wanted::kFile);
        line.finish(" into " + localTop);
        return kExitOk;
    }
    for (auto const& [rpath, info] : remote) {
        std::string local = localTop + "/" + rpath;
        if (info.isDirType()) {
            if (!makeLocalFolders(local)) {
                return reportProblem("restore: cannot create " + local, kExitError);
            }
        } else if (interrupted() ||
                   !receiveOne(s, joinPath(remoteTop, rpath), local, info.getSize(), line)) {
            return transferFailure("restore", joinPath(remoteTop, rpath), Wanted::kFile);
        }
    }
    line.finish(" into " + localTop);
    return kExitOk;
}

int runCheck(Session& s) {
    std::string localTop = s.path(0), remoteTop = remotePath(s.path(1));
    std::vector<LocalEntry> entries;
    std::vector<std::string> skipped;
    std::string error;
    if (!listLocalTree(localTop, entries, skipped, error)) {
        return reportProblem("check " + localTop + ": " + error, kExitFolderNotFound);
    }
    std::map<std::string, FileInfo> remote;
    std::string failed;
    if (transfersOf(s) > 1 ? !TreeWorkers(s).list(remoteTop, false, remote, failed)
                           : !remoteEntries(s.agent, remoteTop, false, remote)) {
        return reportFailure("check", remoteTop, getError(), Wanted::kFolder);
    }
    Json::Value differ(Json::arrayValue), missingRemote(Json::arrayValue),
        missingLocal(Json::arrayValue);
    int64_t matched = 0;
    for (auto const& entry : entries) {
        auto found = remote.find(entry.rpath);
        if (found == remote.end()) {
            missingRemote.append(entry.rpath);
            continue;
        }
        FileInfo const& other = found->second;
        bool same = entry.isFolder
                        ? other.isDirType()
                        : !other.isDirType() && other.getSize() == entry.size &&
                              other.getChecksum() == fileMd5(localTop + "/" + entry.rpath);
        if (same) {
            matched += entry.isFolder ? 0 : 1;
        } else {
            differ.append(entry.rpath);
        }
        remote.erase(found);
        if (interrupted()) return transferFailure("check", remoteTop, Wanted::kFolder);
    }
    for (auto const& rest : remote) missingLocal.append(rest.first);
    bool ok = differ.empty() && missingRemote.empty() && missingLocal.empty();
    if (s.args.json) {
        Json::Value document(Json::objectValue);
        document["local"] = localTop;
        document["remote"] = remoteTop;
        document["matched"] = static_cast<Json::Int64>(matched);
        document["differ"] = differ;
        document["missing_remote"] = missingRemote;
        document["missing_local"] = missingLocal;
        document["ok"] = ok;
        printJson(document);
    } else {
        for (auto const& p : differ) printf("differs:            %s\n", p.asCString());
        for (auto const& p : missingRemote) printf("missing remotely:   %s\n", p.asCString());
        for (auto const& p : missingLocal) printf("missing locally:    %s\n", p.asCString());
        printf("%" PRId64 " files match, %u differences\n", matched,
               differ.size() + missingRemote.size() + missingLocal.size());
    }
    return ok ? kExitOk : kExitError;
}

}  // namespace gdhost
