#include "worker_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <list>
#include <memory>

#include "backup/error.h"
#include "failure.h"
#include "interrupt.h"
#include "job_lines.h"
#include "local_files.h"
#include "long_paths.h"
#include "partial_files.h"
#include "plugin_log.h"
#include "plugin_module.h"
#include "remote_tree.h"
#include "tree_files.h"

extern char** environ;

namespace gdhost {

using namespace TAVO::Backup;

char const kWorkerMode[] = "__worker";

namespace {

int const kJobsFd = 3;
int const kResultsFd = 4;

// The signals that stop a run: blocked from the spawn until the worker's
// handlers are in place.
sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    return set;
}

// Reports the bytes of the running transfer to the parent, at most five
// times a second, and passes on cancellation.
class WorkerProgress {
  public:
    explicit WorkerProgress(int results) : _results(results) {}
    TransferAgent::ProgressHook hook() {
        return [this](long bytes) {
            _pending += bytes;
            auto now = std::chrono::steady_clock::now();
            if (now - _sent >= std::chrono::milliseconds(200)) {
                Json::Value line(Json::objectValue);
                line["progress"] = static_cast<Json::Int64>(_pending);
                sendAll(_results, lineOf(line));
                _reported += _pending;
                _pending = 0;
                _sent = now;
            }
            return !interrupted();
        };
    }
    int64_t reported() const { return _reported; }

  private:
    int _results;
    int64_t _pending = 0;
    int64_t _reported = 0;
    std::chrono::steady_clock::time_point _sent = std::chrono::steady_clock::now();
};

Json::Value entryOf(FileInfo const& info) {
    Json::Value entry(Json::objectValue);
    entry["name"] = info.getRpath();
    entry["dir"] = info.isDirType();
    entry["size"] = static_cast<Json::Int64>(info.getSize());
    entry["mtime"] = static_cast<Json::Int64>(info.getMtime());
    entry["md5"] = info.getChecksum();
    return entry;
}

// Lists the folder `job` names as "first", only to learn it: a failure
// shows in the job itself.
void learnFirst(TransferAgent& agent, Json::Value const& job) {
    if (!job.isMember("first")) return;
    std::list<FileInfo> listed;
    if (!agent.listDir(job["first"].asString(), listed)) {
        beginOperation(job["remote"].asString());
        setError(ERR_NONE);
    }
}

// A transfer's job: the plug-in's temporary file stays private until it
// takes its name, then gets a new file's mode; a download holds its folder
// as the one-agent form does.
bool runTransfer(TransferAgent& agent, Json::Value const& job, int results, Json::Value& result) {
    WorkerProgress progress(results);
    bool const send = job["op"].asString() == "send";
    std::string const remote = job["remote"].asString();
    std::string const local = reachable(absoluteLocalPath(job["local"].asString()));
    FileInfo info(remote);
    if (send) {
        learnFirst(agent, job);
        if (!agent.sendFile(local, remote, progress.hook(), true, info)) return false;
        result["bytes"] = static_cast<Json::Int64>(info.getSize() - progress.reported());
        result["md5"] = info.getChecksum();
        result["mtime"] = static_cast<Json::Int64>(info.getMtime());
        return true;
    }
    DownloadClaim claim(local.substr(0, local.find_last_of('/')));
    if (!agent.recvFile(remote, local, progress.hook(), info)) return false;
    chmod(local.c_str(), newFileMode());
    result["bytes"] = static_cast<Json::Int64>(job["size"].asInt64() - progress.reported());
    return true;
}

Json::Value runJob(TransferAgent& agent, Json::Value const& job, int results) {
    std::string const op = job["op"].asString();
    std::string const remote = job["remote"].asString();
    Json::Value result(Json::objectValue);
    bool ok = false;
    beginOperation(remote);
    setError(ERR_NONE);
    if (interrupted()) {
        setError(ERR_CANCELED);
    } else if (op == "list") {
        learnFirst(agent, job);
        std::list<FileInfo> listed;
        ok = agent.listDir(remote, listed);
        result["entries"] = Json::Value(Json::arrayValue);
        for (FileInfo const& info : listed) result["entries"].append(entryOf(info));
    } else if (op == "mkdir") {
        learnFirst(agent, job);
        ok = job["parents"].asBool() ? makeRemoteFolders(agent, remote)
                                     : createFolderOnceMore(agent, remote);
    } else if (op == "remove") {
        ok = job["folder"].asBool() ? agent.removeDirRecursive(remote) : agent.removeFile(remote);
    } else if (op == "send" || op == "recv") {
        ok = runTransfer(agent, job, results, result);
    } else {
        setError(ERR_BAD_ARGUMENT);
    }
    if (!ok && interrupted()) setError(ERR_CANCELED);
    result["ok"] = ok;
    if (!ok) {
        // Described here, where the plug-in logged the reason.
        Failure failure =
            describeFailure(getError(), job["folder"].asBool() ? Wanted::kFolder : Wanted::kFile);
        result["code"] = failure.engineCode;
        result["words"] = failure.words;
        result["exit"] = failure.exitCode;
        result["stops"] = failure.stopsRun;
    }
    return result;
}

bool isSocket(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

Destination destinationOf(Json::Value const& setup) {
    Destination d;
    d.container = setup["container"].asString();
    d.target = setup["target"].asString();
    d.refreshToken = setup["refreshToken"].asString();
    d.cacheDir = setup["cacheDir"].asString();
    d.dataDir = setup["dataDir"].asString();
    d.plugin = setup["plugin"].asString();
    d.service = setup["service"].asString();
    return d;
}

}  // namespace

pid_t spawnWorkerProcess(int jobs, int results) {
    // Copies above the target numbers, so that the two dup2s cannot overwrite
    // each other's source.
    int const jobsCopy = fcntl(jobs, F_DUPFD_CLOEXEC, 10);
    int const resultsCopy = fcntl(results, F_DUPFD_CLOEXEC, 10);
    pid_t pid = -1;
    int rc = errno;
    if (jobsCopy >= 0 && resultsCopy >= 0) {
        posix_spawn_file_actions_t actions;
        posix_spawnattr_t attributes;
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_adddup2(&actions, jobsCopy, kJobsFd);
        posix_spawn_file_actions_adddup2(&actions, resultsCopy, kResultsFd);
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        sigset_t const stops = stopSignals();
        sigorset(&mask, &mask, &stops);
        posix_spawnattr_setsigmask(&attributes, &mask);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        char program[] = "gdrive_host";
        char mode[sizeof kWorkerMode];
        std::copy(kWorkerMode, kWorkerMode + sizeof kWorkerMode, mode);
        char* argv[] = {program, mode, nullptr};
        rc = posix_spawn(&pid, "/proc/self/exe", &actions, &attributes, argv, environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    if (jobsCopy >= 0) close(jobsCopy);
    if (resultsCopy >= 0) close(resultsCopy);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return pid;
}

Json::Value workerSetup(Destination const& destination, bool verbose) {
    Json::Value setup(Json::objectValue);
    setup["container"] = destination.container;
    setup["target"] = destination.target;
    setup["refreshToken"] = destination.refreshToken;
    setup["cacheDir"] = destination.cacheDir;
    setup["dataDir"] = destination.dataDir;
    setup["plugin"] = destination.plugin;
    setup["service"] = destination.service;
    setup["verbose"] = verbose;
    return setup;
}

int runWorkerProcess() {
    if (!isSocket(kJobsFd) || !isSocket(kResultsFd))
        return reportProblem(std::string("no command named ") + kWorkerMode, kExitUsage);
    // Neither socket may reach the drive agent this worker starts: the
    // parent sees a worker's end only when the worker itself is gone.
    fcntl(kJobsFd, F_SETFD, FD_CLOEXEC);
    fcntl(kResultsFd, F_SETFD, FD_CLOEXEC);
    installInterruptHandler();
    acceptStopSignal();
    sigset_t const stops = stopSignals();
    pthread_sigmask(SIG_UNBLOCK, &stops, nullptr);

    LineReader jobs(kJobsFd);
    std::string line;
    Json::Value setup;
    if (!jobs.next(line) || !parseLine(line, setup)) return kExitError;
    Destination const destination = destinationOf(setup);
    showPluginLog(setup["verbose"].asBool());
    // Told at once, while the plug-in pauses before its retry: the parent
    // slows every worker down, not only this one.
    onRateLimit([] {
        Json::Value line(Json::objectValue);
        line["limited"] = true;
        sendAll(kResultsFd, lineOf(line));
    });
    int rc = kExitOk;
    try {
        PluginModule module;
        std::string error;
        if (!module.load(destination.plugin, error)) return reportProblem(error, kExitError);
        Repository repository = makeRepository(destination);
        std::unique_ptr<TransferAgent> agent = module.makeAgent(repository);
        if (!agent) return kExitError;
        agent->setTargetId(destination.target);
        agent->setTransferOption(Task(destination.target));
        agent->setCancelHook(interrupted);
        while (jobs.next(line)) {
            Json::Value job;
            Json::Value result(Json::objectValue);
            if (parseLine(line, job)) {
                result = runJob(*agent, job, kResultsFd);
            } else {
                result["ok"] = false;
                result["code"] = ERR_BAD_ARGUMENT;
                result["exit"] = kExitError;
            }
            if (!sendAll(kResultsFd, lineOf(result))) return kExitError;
        }
        if (!agent->flushCache()) rc = kExitError;
    } catch (...) {
        rc = kExitError;
    }
    fflush(stdout);
    return rc;
}

}  // namespace gdhost
