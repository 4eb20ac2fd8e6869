#include "tree_files.h"

#include <sys/stat.h>

#include <cstdio>

#include "backup/error.h"
#include "interrupt.h"
#include "long_paths.h"
#include "plugin_log.h"

namespace gdhost {

using namespace TAVO::Backup;

namespace {

// Read while the process is still single-threaded: umask() can only be read
// by setting it.
mode_t const gUmask = [] {
    mode_t mask = umask(022);
    umask(mask);
    return mask;
}();

FileOutcome doneFile(std::string const& shown) {
    FileOutcome outcome;
    outcome.path = shown;
    return outcome;
}

// A failure of the running transfer: cancelled when Ctrl-C came.
FileOutcome transferFailed(std::string const& shown, Wanted wanted) {
    if (interrupted()) setError(ERR_CANCELED);
    return failedFile(shown, getError(), wanted);
}

}  // namespace

mode_t underUmask(mode_t mode) { return mode & 0777 & ~gUmask; }

mode_t newFileMode() { return underUmask(0666); }

TransferAgent::ProgressHook progressHook(ProgressLine& line) {
    return [&line](long bytes) {
        line.addBytes(bytes);
        return !interrupted();
    };
}

FileOutcome sendTreeFile(TransferAgent& agent, std::string const& local, std::string const& remote,
                         std::string const& shown, ProgressLine& line) {
    beginOperation(remote);
    if (interrupted()) return transferFailed(shown, Wanted::kFile);
    FileInfo info(remote);
    int64_t before = line.bytes();
    if (!agent.sendFile(reachable(absoluteLocalPath(local)), remote, progressHook(line), true,
                        info)) {
        return transferFailed(shown, Wanted::kFile);
    }
    line.fileDone(info.getSize() - (line.bytes() - before));
    FileOutcome done = doneFile(shown);
    done.md5 = info.getChecksum();
    done.remoteMtime = info.getMtime();
    return done;
}

FileOutcome receiveTreeFile(TransferAgent& agent, std::string const& remote,
                            std::string const& local, int64_t size, std::string const& shown,
                            ProgressLine& line) {
    beginOperation(remote);
    if (interrupted()) return transferFailed(shown, Wanted::kFile);
    FileInfo info(remote);
    int64_t before = line.bytes();
    std::string target = reachable(absoluteLocalPath(local));
    if (!agent.recvFile(remote, target, progressHook(line), info)) {
        return transferFailed(shown, Wanted::kFile);
    }
    // The plug-in's temporary file was private (0600) until it took the name.
    chmod(target.c_str(), newFileMode());
    line.fileDone(size - (line.bytes() - before));
    return doneFile(shown);
}

bool sameContent(std::string const& local, int64_t size, FileInfo const& remote,
                 std::string const* localMd5) {
    return !remote.isDirType() && remote.getSize() == size &&
           remote.getChecksum() == (localMd5 ? *localMd5 : fileMd5(local));
}

bool hasNoStoredBytes(FileInfo const& remote) {
    return !remote.isDirType() && remote.getChecksum().empty();
}

void skipNoStoredBytes(char const* command, std::string const& path, RunReport& report) {
    fprintf(stderr,
            "gdrive_host: %s: skipped %s (a Google Docs, Sheets or Slides file, a shortcut or "
            "another Google-native object: no stored bytes)\n",
            command, path.c_str());
    FileOutcome skipped;
    skipped.kind = FileOutcome::kSkipped;
    skipped.path = path;
    report.add(skipped);
}

}  // namespace gdhost
