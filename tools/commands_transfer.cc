// Commands that move one file: put, get.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "backup/error.h"
#include "backup/path.h"
#include "commands.h"
#include "failure.h"
#include "local_files.h"
#include "partial_files.h"
#include "remote_tree.h"
#include "tree_files.h"
#include "tree_index.h"

namespace gdhost {

using namespace TAVO::Backup;

namespace {

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

int reportOutcome(char const* operation, FileOutcome const& outcome) {
    fprintf(stderr, "gdrive_host: %s %s: %s\n", operation, outcome.path.c_str(),
            outcome.failure.words.c_str());
    return outcome.failure.exitCode;
}

// The folder a local path names as its parent ("." for a bare name).
std::string localParent(std::string const& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
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
    FileOutcome outcome = sendTreeFile(s.agent, local, remote, remote, line);
    if (outcome.kind == FileOutcome::kFailed) return reportOutcome("put", outcome);
    line.finish(" to " + remote);
    return kExitOk;
}

int runGet(Session& s) {
    std::string remote = remotePath(s.path(0));
    std::string local = s.path(1);
    if (isLocalFolder(local)) local = local + "/" + Path::basename(remote);
    std::string folder = localParent(local);
    if (!isLocalFolder(folder)) {
        return reportProblem("get " + remote + ": the local folder " + folder + " does not exist",
                             kExitFolderNotFound);
    }
    FileInfo info(remote);
    if (!s.agent.stat(remote, info)) {
        int error = getError();
        // A missing folder on the way is a folder not found, as for ls.
        size_t slash = remote.rfind('/');
        if (error == ERR_REMOTE_NOT_FOUND && slash != std::string::npos) {
            std::string parent = remote.substr(0, slash);
            FileInfo folder(parent);
            if (!s.agent.stat(parent, folder) && getError() == ERR_REMOTE_NOT_FOUND) {
                return reportFailure("get " + remote + ": folder", parent, ERR_REMOTE_NOT_FOUND,
                                     Wanted::kFolder);
            }
        }
        return reportFailure("get", remote, error, Wanted::kFile);
    }
    if (info.isDirType()) {
        return reportProblem("get " + remote + ": is a folder; use restore to fetch a tree",
                             kExitUsage);
    }
    removeLeftoverDownloads(folder);
    DownloadClaim claim(folder);
    ProgressLine line("received", info.getSize(), 1, s.args.quiet);
    FileOutcome outcome = receiveTreeFile(s.agent, remote, local, info.getSize(), remote, line);
    if (outcome.kind == FileOutcome::kFailed) return reportOutcome("get", outcome);
    // The time the file had when it was stored, and the mode if it was recorded.
    TreeIndex index(s.destination, ".", "", true);
    if (!applyStoredMeta(local, info, index.recordOf(remote, info))) {
        fprintf(stderr, "gdrive_host: get: %s: cannot set its time or mode: %s\n", local.c_str(),
                strerror(errno));
    }
    line.finish(" to " + local);
    return kExitOk;
}

}  // namespace gdhost
