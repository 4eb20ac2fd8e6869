#include "workers.h"

#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <memory>

#include "backup/error.h"
#include "cache_merge.h"
#include "failure.h"
#include "interrupt.h"
#include "job_lines.h"
#include "job_queue.h"
#include "remote_tree.h"
#include "work_folder.h"
#include "worker_process.h"

namespace gdhost {

using namespace TAVO::Backup;
namespace fs = std::filesystem;

namespace {

// Jobs a worker may hold behind a running one: each stands alone, and a
// failure that stops the run costs at most one more attempt, as it would
// with one more worker. Folder changes and deletions go one at a time.
bool pipelined(Json::Value const& job) {
    std::string const op = job["op"].asString();
    return !job["warm"].asBool() && (op == "send" || op == "recv" || op == "list");
}

// `d` in whole milliseconds, rounded up, for poll().
long long ceilMs(ClientPace::Clock::duration d) {
    return std::chrono::ceil<std::chrono::milliseconds>(d).count();
}

}  // namespace

int transfersOf(Session const& s) { return s.args.transfers < 1 ? 1 : s.args.transfers; }

WorkerPool::~WorkerPool() {
    stopAll();
    if (!_folder.empty()) {
        std::error_code ignored;
        fs::remove_all(_folder, ignored);
    }
    if (_folderLock >= 0) close(_folderLock);
}

std::string WorkerPool::reap(Worker& w) {
    if (w.pid <= 0) return "worker process ended";
    int status = 0;
    pid_t got;
    while ((got = waitpid(w.pid, &status, 0)) < 0 && errno == EINTR) {
    }
    w.pid = -1;
    if (got < 0) return "worker process ended";
    if (WIFSIGNALED(status))
        return "worker process ended by signal " + std::to_string(WTERMSIG(status));
    return "worker process ended with exit status " + std::to_string(WEXITSTATUS(status));
}

void WorkerPool::stopAll() {
    for (Worker& w : _workers) {
        if (w.jobs >= 0) close(w.jobs);
        w.jobs = -1;
    }
    for (Worker& w : _workers) {
        if (w.results >= 0) close(w.results);
        w.results = -1;
        reap(w);
    }
}

bool WorkerPool::start(int count, std::string& error) {
    _folder = makeWorkFolder(_folderLock, error);
    if (_folder.empty()) return false;
    _count = count < 1 ? 1 : count;
    std::string const mainFile = nodeCacheFile(_session.destination);
    _baseFile = _folder + "/base.node";
    // A base that is not the whole file (a full temporary folder) would make
    // every record it lacks look proven gone at the merge.
    _baseInDoubt = fs::exists(mainFile) && !copyWholeFile(mainFile, _baseFile);
    // A tree the node cache has never seen is most likely new, and a warm-up
    // would only start agents to find nothing.
    if (_warmCount > 0 && !cacheMayKnowName(_baseFile, _warmProbe)) _warmCount = 0;
    // Warming up is a bet on a slow service, made before any answer: the
    // listing is then spread as at a service's pace from the start.
    if (_warmCount > 0 && !_warmWhenSlow) _pace.assumeSlow();
    _clientPace = ClientPace(static_cast<size_t>(_count));
    return true;
}

bool WorkerPool::spawn() {
    Destination destination = _session.destination;
    destination.cacheDir = _folder + "/w" + std::to_string(_workers.size());
    std::string file = nodeCacheFile(destination);
    std::error_code failed;
    fs::create_directories(fs::path(file).parent_path(), failed);
    struct stat copied {};
    // A worker whose copy failed works without a node cache: it learns
    // everything anew, and proves nothing gone.
    bool const withBase =
        fs::exists(_baseFile) && copyWholeFile(_baseFile, file) && stat(file.c_str(), &copied) == 0;
    int toWorker[2], fromWorker[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, toWorker) != 0) return false;
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fromWorker) != 0) {
        close(toWorker[0]);
        close(toWorker[1]);
        return false;
    }
    pid_t pid = spawnWorkerProcess(toWorker[0], fromWorker[1]);
    close(toWorker[0]);
    close(fromWorker[1]);
    if (pid < 0 || !sendAll(toWorker[1], lineOf(workerSetup(destination, _session.args.verbose)))) {
        close(toWorker[1]);
        close(fromWorker[0]);
        if (pid > 0) waitpid(pid, nullptr, 0);  // it read no set-up: it ends at once
        return false;
    }
    Worker worker;
    worker.pid = pid;
    worker.jobs = toWorker[1];
    worker.results = fromWorker[0];
    worker.cacheFile = file;
    worker.copiedInode = withBase ? copied.st_ino : 0;
    worker.withBase = withBase || !fs::exists(_baseFile);
    _workers.push_back(worker);
    return true;
}

bool WorkerPool::readResults(Worker& w, std::deque<Json::Value>& jobs,
                             ResultHandler const& onResult, ProgressLine* progress,
                             bool& keepGoing) {
    char buffer[65536];
    ssize_t n = read(w.results, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) {
        // The worker is gone: its job failed, and it takes no other.
        close(w.results);
        w.results = -1;
        close(w.jobs);
        w.jobs = -1;
        std::deque<Worker::Sent> sent = std::move(w.sent);
        w.sent.clear();
        std::string const how = reap(w);
        if (!sent.empty() && !sent.front().job["warm"].asBool()) {
            Json::Value result(Json::objectValue);
            result["ok"] = false;
            result["code"] = interrupted() ? ERR_CANCELED : ERR_GENERAL;
            if (!interrupted()) {
                result["words"] = std::string("error 1, general failure: ") + how;
                result["exit"] = kExitError;
                result["stops"] = false;
            }
            if (!onResult(sent.front().job, result, jobs)) keepGoing = false;
        }
        // The jobs waiting behind it never started: another worker takes them.
        for (size_t i = 1; i < sent.size(); ++i) jobs.push_back(std::move(sent[i].job));
        return false;
    }
    w.received.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = w.received.find('\n')) != std::string::npos) {
        Json::Value result;
        bool parsed = parseLine(w.received.substr(0, end), result);
        w.received.erase(0, end + 1);
        if (parsed && result.isMember("progress")) {
            if (progress) progress->addBytes(result["progress"].asInt64());
            continue;
        }
        if (parsed && result.isMember("limited")) {
            w.limited = true;
            paceLimited(progress);
            continue;
        }
        if (!parsed) {
            result = Json::Value(Json::objectValue);
            result["ok"] = false;
            result["code"] = ERR_GENERAL;
        }
        if (!w.busy()) continue;  // nothing asked: not an answer to anything
        Worker::Sent done = std::move(w.sent.front());
        w.sent.pop_front();
        // A job that waited behind another started when that one ended.
        auto const now = ServicePace::Clock::now();
        if (!done.first) _pace.finished(now - std::max(done.since, w.answered));
        w.answered = now;
        if (!w.limited) paceClean(progress);
        w.limited = false;
        if (result["ok"].asBool()) learnFrom(w, done.job);
        if (done.job["warm"].asBool()) {
            if (_warmAnswer.isNull() && result["ok"].asBool()) _warmAnswer = result;
            continue;
        }
        if (progress && result["ok"].asBool() && result.isMember("bytes"))
            progress->fileDone(result["bytes"].asInt64());
        if (!onResult(done.job, result, jobs)) keepGoing = false;
    }
    return true;
}

void WorkerPool::learnFrom(Worker& w, Json::Value const& job) {
    std::string const op = job["op"].asString(), remote = job["remote"].asString();
    if (op == "mkdir") {
        // A folder its agent made, it knows whole; and its parent's place.
        if (!job["parents"].asBool()) w.listed.insert(remote);
        w.known.insert(remote);
        w.known.insert(parentPath(remote));
    } else if (op == "list") {
        w.known.insert(remote);
    } else if (op == "send" || op == "recv") {
        w.known.insert(parentPath(remote));
    }
}

void WorkerPool::paceLimited(ProgressLine* progress) {
    if (!_clientPace.limited(ClientPace::Clock::now())) return;
    if (progress) progress->setNote(_clientPace.describe());
    if (_session.args.verbose)
        fprintf(stderr, "gdrive_host: rate limited, all workers slow down: %s\n",
                _clientPace.describe().c_str());
}

void WorkerPool::paceClean(ProgressLine* progress) {
    if (!_clientPace.clean(ClientPace::Clock::now())) return;
    if (progress) progress->setNote(_clientPace.describe());
    if (!_session.args.verbose) return;
    if (_clientPace.paced()) {
        fprintf(stderr, "gdrive_host: answers clean, speeding up: %s\n",
                _clientPace.describe().c_str());
    } else {
        fprintf(stderr, "gdrive_host: answers clean, no longer paced\n");
    }
}

bool WorkerPool::run(std::deque<Json::Value>& jobs, ResultHandler const& onResult,
                     ProgressLine* progress, int limit, std::function<bool()> const& idleWork) {
    bool idleLeft = static_cast<bool>(idleWork);
    size_t const most = static_cast<size_t>(std::max(1, std::min(limit, _count)));
    bool keepGoing = true;
    JobQueue queue;
    for (;;) {
        if (interrupted() && !_stopSent) {
            // Ctrl-C on a terminal reaches the workers too; a stop sent
            // only to this process must reach them as well.
            for (Worker const& w : _workers)
                if (w.pid > 0) kill(w.pid, SIGUSR1);
            _stopSent = true;
        }
        bool handOut = keepGoing && !interrupted();
        while (!jobs.empty()) {
            queue.add(std::move(jobs.front()));
            jobs.pop_front();
        }
        if (handOut && !_warmAnswer.isNull()) {
            // A warm-up already listed the folder this job lists.
            Json::Value job = queue.takeLike(_warm);
            if (!job.isNull()) {
                Json::Value answer = std::move(_warmAnswer);
                _warmAnswer = Json::Value();
                if (!onResult(job, answer, jobs)) keepGoing = false;
                continue;
            }
        }
        // A worker costs a drive agent's start: one more only for a job
        // that no idle one can take now, and only while the service is slow.
        auto const now = ServicePace::Clock::now();
        size_t idle = 0;
        for (size_t i = 0; i < _workers.size() && i < most; ++i) {
            Worker const& w = _workers[i];
            idle += !w.busy() && w.jobs >= 0;
            if (w.busy()) _pace.running(now - w.runningSince(), w.sent.front().first);
        }
        size_t room = _pace.slow() ? most : 1;
        // A worker's start costs requests of its own (a token, confirming its
        // way to the destination): for listings, a request each, only a
        // worker per so many.
        if (queue.onlyListings())
            room =
                std::min(room, std::max(_workers.size(), 1 + queue.size() / kLightJobsPerWorker));
        // No more workers than the pace lets run at once.
        if (_clientPace.paced())
            room = std::min(room, std::max(_clientPace.inFlight(), _workers.size()));
        size_t running = 0;
        for (Worker const& w : _workers) running += w.sent.size();
        while (handOut && queue.size() > idle && _workers.size() < room && spawn()) ++idle;
        // Against a fast service a worker gets its next transfer or listing
        // while it runs one, so that it never waits for this process between
        // two; at a service's latency one at a time keeps the shares even.
        size_t const depth = _pace.slow() || _clientPace.paced() ? 1 : 2;
        // Hands `w` the jobs that suit it, if any.
        auto offer = [&](Worker& w) {
            while (w.jobs >= 0 && w.sent.size() < depth) {
                if (w.busy() && !pipelined(w.sent.back().job)) return;
                if (queue.empty() && w.hadJob) return;
                if (!_clientPace.mayStart(running, ServicePace::Clock::now())) return;
                std::vector<std::string> elsewhere;
                bool anyBusy = false;
                for (size_t j = 0; j < _workers.size() && j < most; ++j) {
                    Worker const& other = _workers[j];
                    anyBusy = anyBusy || other.busy();
                    if (&other != &w && other.jobs >= 0) elsewhere.push_back(other.home);
                }
                Json::Value job = queue.empty() ? Json::Value()
                                                : queue.take(w.home, elsewhere, !anyBusy, w.known);
                if (job.isNull() && !w.hadJob && _warmCount > 0) {
                    job = _warm;
                    job["warm"] = true;
                }
                if (job.isNull()) return;
                if (w.busy() && !pipelined(job)) {
                    queue.putBack(std::move(job));
                    return;
                }
                Worker::Sent sent;
                sent.first = !w.hadJob;
                sent.since = ServicePace::Clock::now();
                w.hadJob = true;
                // A listing below a folder new to this worker: listing that
                // folder first confirms all its folders at once, where asking
                // for each would cost a request per job.
                std::string const group = job["group"].asString();
                bool const listing = job["op"].asString() == "list";
                if (listing && !w.listed.count(group) && _listed.count(group) &&
                    group != job["remote"].asString()) {  // the top's own group is itself
                    job["first"] = group;
                    w.listed.insert(group);
                }
                // A send into a folder it has not listed: the listing answers
                // for every name the worker then stores there.
                if (job["listFirst"].asBool() && !w.listed.count(group)) {
                    job["first"] = group;
                    w.listed.insert(group);
                }
                // So does a listing of the folder a new folder goes into, found
                // listable by another worker, for the folders made there.
                std::string const near = job["near"].asString();
                if (job["op"] == "mkdir" && _listed.count(near) && !w.listed.count(near)) {
                    job["first"] = near;
                    w.listed.insert(near);
                }
                if (listing) {
                    w.listed.insert(job["remote"].asString());
                    _listed.insert(job["remote"].asString());
                }
                w.home = job["warm"].asBool() ? job["remote"].asString() : group;
                sent.job = std::move(job);
                if (!sendAll(w.jobs, lineOf(sent.job))) {
                    // Gone: what it was sent before is settled when its
                    // results end.
                    if (!sent.job["warm"].asBool()) queue.putBack(std::move(sent.job));
                    close(w.jobs);
                    w.jobs = -1;
                    return;
                }
                _clientPace.started(sent.since);
                ++running;
                w.sent.push_back(std::move(sent));
            }
        };
        // 0 for a tree the cache never saw, or not yet shown to be at a
        // service's latency when that was asked for
        size_t const warmTo = _warmWhenSlow && !_pace.slow() ? 0 : std::min(most, _warmCount);
        // Each warmed-up worker gets its job as soon as it exists, so that its
        // drive agent starts while the next ones are forked.
        while (handOut && _workers.size() < warmTo && spawn()) offer(_workers.back());
        for (size_t i = 0; i < _workers.size() && i < most; ++i) {
            if (!handOut || (queue.empty() && _warmCount == 0)) break;
            offer(_workers[i]);
        }
        std::vector<pollfd> fds;
        std::vector<Worker*> polled;
        for (Worker& w : _workers) {
            if (w.results < 0 || !w.busy()) continue;
            fds.push_back({w.results, POLLIN, 0});
            polled.push_back(&w);
        }
        if (fds.empty()) {
            bool anyAlive = false;
            for (size_t i = 0; i < _workers.size() && i < most; ++i)
                anyAlive = anyAlive || _workers[i].jobs >= 0;
            if (!handOut || (queue.empty() && jobs.empty()) || !anyAlive) break;
            // Nothing running, and the pace holds the next start back.
            auto const held = _clientPace.untilStart(ClientPace::Clock::now());
            if (held > ClientPace::Clock::duration::zero())
                poll(nullptr, 0, static_cast<int>(ceilMs(held)));
            continue;
        }
        int wait = idleLeft ? 0 : 100;
        if (!queue.empty() && _clientPace.paced()) {
            // Look again when the pace lets the next job start.
            auto const held = _clientPace.untilStart(ClientPace::Clock::now());
            if (held > ClientPace::Clock::duration::zero())
                wait = std::min(wait, static_cast<int>(ceilMs(held)));
        }
        if (!_pace.slow() && _workers.size() < most && !queue.empty()) {
            // Look again when a running job would show the service slow.
            for (Worker const* w : polled) {
                if (w->sent.front().first) continue;
                auto left = _pace.untilSlow(ServicePace::Clock::now() - w->runningSince());
                wait = std::min<int>(
                    wait,
                    static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
            }
        }
        int ready = poll(fds.data(), fds.size(), wait);
        if (ready < 0 && errno != EINTR) break;
        if (ready == 0 && idleLeft) idleLeft = idleWork();
        for (size_t i = 0; ready > 0 && i < fds.size(); ++i) {
            if (fds[i].revents) readResults(*polled[i], jobs, onResult, progress, keepGoing);
        }
    }
    _warmAnswer = Json::Value();  // a listing of this run's moment only
    bool const left = !queue.empty() || !jobs.empty();
    while (!queue.empty()) jobs.push_back(queue.take("", {}, true));
    if (left && keepGoing && !interrupted()) {
        // Every worker died with work left.
        setError(ERR_GENERAL);
        return false;
    }
    return keepGoing && !interrupted();
}

bool WorkerPool::finish(std::string& error) {
    stopAll();
    if (_baseInDoubt) {
        error = "it could not be copied whole for the workers";
        return false;
    }
    std::vector<Worker const*> taught;
    for (Worker const& w : _workers) {
        // The plug-in saves through a new file renamed into place: a copy
        // still on its inode was never written, and taught nothing.
        struct stat now {};
        if (stat(w.cacheFile.c_str(), &now) != 0) continue;
        if (w.copiedInode != 0 && now.st_ino == w.copiedInode) continue;
        taught.push_back(&w);
    }
    // Reading a large cache costs as much as a listing of its size: only
    // when there is something to merge into it.
    if (taught.empty()) return true;
    std::map<std::string, std::string> const base = readCacheLines(_baseFile);
    std::vector<std::map<std::string, std::string>> learned;
    for (Worker const* w : taught) {
        learned.push_back(readCacheLines(w->cacheFile));
        // One that started without the base only adds what it learned.
        if (!w->withBase) learned.back().insert(base.begin(), base.end());
    }
    std::string const mainFile = nodeCacheFile(_session.destination);
    std::error_code failed;
    fs::create_directories(fs::path(mainFile).parent_path(), failed);
    return writeCacheLines(mainFile, mergeCacheLines(base, learned), error);
}

bool runOnWorkers(Session& s, int count, std::deque<Json::Value> jobs,
                  WorkerPool::ResultHandler const& onResult, ProgressLine* progress,
                  std::string& error) {
    if (jobs.empty()) return !interrupted();
    WorkerPool pool(s);
    if (!pool.start(count, error)) return false;
    bool ran = pool.run(jobs, onResult, progress);
    if (pool.started() == 0) error = std::string("cannot start a worker: ") + strerror(errno);
    // What the workers learned is kept even after a failure: it is all true.
    // A cache that cannot be written costs lookups later, not this command.
    std::string mergeError;
    if (!pool.finish(mergeError))
        fprintf(stderr, "gdrive_host: node cache not updated: %s\n", mergeError.c_str());
    return ran;
}

}  // namespace gdhost
