#include "backup/transfer_agent.h"

#include <dirent.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <vector>

#include "backup/error.h"
#include "backup/path.h"
#include "backup/scoped_temp_file.h"

namespace TAVO {
namespace Backup {
namespace {

bool debugFromEnvironment() {
    char const* v = getenv("TAVO_TA_DEBUG");
    return v && strcmp(v, "1") == 0;
}

std::atomic<bool> g_debug{debugFromEnvironment()};
std::mutex g_sink_mutex;
boost::function<void(std::string const&)> g_sink;

// Slots a plug-in does not offer fail as a general error.
bool unsupported() {
    setError(ERR_GENERAL);
    return false;
}

}  // namespace

TransferAgent::TransferAgent(Repository const& repository) : _repository(repository) {}
TransferAgent::~TransferAgent() {}

bool TransferAgent::isValid() const { return true; }
bool TransferAgent::setTransferOption(Task const&) { return true; }
void TransferAgent::setTargetId(std::string const& targetId) { _target_id = targetId; }
std::string TransferAgent::getTargetId() const { return _target_id; }
void TransferAgent::setVersionId(VersionId const& versionId) { _version_id = versionId; }
VersionId TransferAgent::getVersionId() const { return _version_id; }

bool TransferAgent::setCancelHook(CancelHook hook) {
    _cancel_hook = hook;
    return true;
}

bool TransferAgent::sendFile(std::string const& local, std::string const& remote) {
    return sendFile(local, remote, ProgressHook());
}

bool TransferAgent::sendFile(std::string const& local, std::string const& remote,
                             ProgressHook progress) {
    return sendFile(local, remote, progress, true);
}

bool TransferAgent::sendFile(std::string const& local, std::string const& remote,
                             ProgressHook progress, bool flag) {
    FileInfo info(remote);
    return sendFile(local, remote, progress, flag, info);
}

bool TransferAgent::sendFileSync(std::string const& local, std::string const& remote,
                                 ProgressHook progress, bool flag, FileInfo& info) {
    return sendFile(local, remote, progress, flag, info);
}

bool TransferAgent::sendFile(std::string const&, std::string const&, ProgressHook, bool,
                             FileInfo&) {
    return unsupported();
}

bool TransferAgent::recvFile(std::string const& remote, std::string const& local) {
    return recvFile(remote, local, ProgressHook());
}

bool TransferAgent::recvFile(std::string const& remote, std::string const& local,
                             ProgressHook progress) {
    FileInfo info("");
    return recvFile(remote, local, progress, info);
}

bool TransferAgent::recvFile(std::string const&, std::string const&, ProgressHook, FileInfo&) {
    return unsupported();
}

bool TransferAgent::recvFile(std::string const& remote, boost::shared_ptr<FileOutputer> out) {
    if (!out) {
        setError(ERR_BAD_ARGUMENT);
        return false;
    }
    char const* tmpdir = getenv("TMPDIR");
    std::string spool = Path::join(tmpdir && *tmpdir ? tmpdir : "/tmp", "tavo-recv");
    ScopedTempFile tmp(spool, true);
    if (!tmp.isValid()) {
        setError(getErrorCodeByLibcFileIo(errno, true));
        return false;
    }
    if (!recvFile(remote, tmp.getPath())) return false;
    std::ifstream in(tmp.getPath(), std::ios::binary);
    std::vector<char> buf(1 << 20);
    while (in) {
        in.read(buf.data(), buf.size());
        std::streamsize n = in.gcount();
        if (n > 0 && !out->write(buf.data(), static_cast<size_t>(n))) {
            setError(ERR_CANCELED);
            return false;
        }
    }
    if (in.bad()) {
        setError(ERR_LOCAL_IO);
        return false;
    }
    return true;
}

bool TransferAgent::isExist(std::string const&) { return unsupported(); }
bool TransferAgent::isFileExist(std::string const&) { return unsupported(); }
bool TransferAgent::stat(std::string const&, FileInfo&) { return unsupported(); }
bool TransferAgent::removeFile(std::string const&) { return unsupported(); }
bool TransferAgent::createDir(std::string const&) { return unsupported(); }
bool TransferAgent::removeDirRecursive(std::string const&) { return unsupported(); }
bool TransferAgent::listDir(std::string const&, std::list<FileInfo>&) { return unsupported(); }
bool TransferAgent::listDirRecursive(std::string const&, ListHook, void*) { return unsupported(); }

bool TransferAgent::sendDirRecursive(std::string const& local, std::string const& remote,
                                     ProgressHook progress,
                                     std::map<std::string, std::string> const& options) {
    std::list<FileInfo> sent;
    return sendDirRecursive(local, remote, progress, options, sent);
}

bool TransferAgent::sendDirRecursive(std::string const& local, std::string const& remote,
                                     ProgressHook progress,
                                     std::map<std::string, std::string> const& options,
                                     std::list<FileInfo>& sent) {
    if (!createDir(remote)) return false;
    DIR* dir = opendir(local.c_str());
    if (!dir) {
        setError(getErrorCodeByLibcStat(errno, true));
        return false;
    }
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            names.push_back(entry->d_name);
    }
    closedir(dir);
    for (auto const& name : names) {
        if (isCanceled()) {
            setError(ERR_CANCELED);
            return false;
        }
        std::string localChild = Path::join(local, name);
        std::string remoteChild = Path::join(remote, name);
        struct stat st;
        if (lstat(localChild.c_str(), &st) != 0) {
            setError(getErrorCodeByLibcStat(errno, true));
            return false;
        }
        if (S_ISDIR(st.st_mode)) {
            if (!sendDirRecursive(localChild, remoteChild, progress, options, sent)) return false;
        } else if (S_ISREG(st.st_mode)) {
            FileInfo info(remoteChild);
            if (!sendFile(localChild, remoteChild, progress, true, info)) return false;
            sent.push_back(info);
        }
    }
    return true;
}

bool TransferAgent::getAccountInfo(AccountInfo&) { return unsupported(); }
bool TransferAgent::checkCache() { return true; }
bool TransferAgent::flushCache() { return true; }
bool TransferAgent::listContainer(std::list<FileInfo>&) { return unsupported(); }
bool TransferAgent::createContainer(std::string const&) { return unsupported(); }

bool TransferAgent::isDebug() { return g_debug; }
void TransferAgent::setDebug(bool on) { g_debug = on; }

void TransferAgent::setDebugSink(boost::function<void(std::string const&)> sink) {
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    g_sink = sink;
}

void TransferAgent::debug(char const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    char small[512];
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    std::string line;
    if (n >= static_cast<int>(sizeof small)) {
        line.resize(n);
        vsnprintf(&line[0], n + 1, fmt, args);
    } else if (n > 0) {
        line.assign(small, n);
    }
    va_end(args);
    std::lock_guard<std::mutex> lock(g_sink_mutex);
    if (g_sink) {
        g_sink(line);
    } else {
        syslog(LOG_DEBUG, "ta-debug: %s", line.c_str());
    }
}

}  // namespace Backup
}  // namespace TAVO
