// Worker processes for the commands that move many files. Each worker is
// this tool started anew in worker mode (see worker_process.h, which says why
// it is exec'd, never merely forked) with its own transfer agent, and so its
// own drive agent and its own copy of the node cache file: starting a drive
// agent changes the process environment, so two of them must never start at
// once in one process, and an agent may restart its drive agent after any
// failure. The
// parent starts no drive agent while workers run; it hands out jobs, is the
// only reader of their results, and merges their node caches at the end.
// Jobs and results travel as JSON lines over a pair of sockets per worker,
// so that a side that is gone shows as a failed write, not SIGPIPE.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "client_pace.h"
#include "commands.h"
#include "progress_line.h"
#include "service_pace.h"

namespace gdhost {

// Listings (a request each) waiting for each worker the pool adds to list
// a tree: a worker costs about three requests to start (its drive agent's
// token, confirming the destination's place), so that a tree of 20 folders
// is listed by three workers, not eight, and one of 300 by all.
constexpr size_t kLightJobsPerWorker = 8;

// A job is a JSON object, optionally with "group", the folder it works in
// (see JobQueue: workers stay in a folder), and "op" one of
//   "list"   "remote": one folder's children
//   "mkdir"  "remote": the folder (with "parents": and its missing parents)
//   "remove" "remote": a file, or with "folder" a folder and its content
//   "send"   "local" to "remote" (with "listFirst": after listing its folder,
//            once per worker, so that the plug-in asks for no name there)
//   "recv"   "remote" to "local" ("size" bytes)
// Its result: "ok"; on failure "code" (the engine's error code), "words",
// "exit" and "stops" (the failure as describeFailure gives it, "folder"
// saying what was wanted); "entries" for "list" (objects with "name", "dir",
// "size", "mtime", "md5"); "bytes" moved and not yet reported for "send"
// and "recv"; "md5" and "mtime" of the stored file for "send".
class WorkerPool {
  public:
    // Called for each result; may queue more jobs. Returning false stops
    // handing out jobs (those running are still waited for).
    typedef std::function<bool(Json::Value const& job, Json::Value const& result,
                               std::deque<Json::Value>& jobs)>
        ResultHandler;

    explicit WorkerPool(Session& session) : _session(session) {}
    // Ends and reaps the workers still running and removes their folders.
    ~WorkerPool();
    WorkerPool(WorkerPool const&) = delete;
    WorkerPool& operator=(WorkerPool const&) = delete;

    // Prepares for at most `count` workers, each to work on a private copy
    // of the destination's node cache file as it is now. Workers start when
    // there are jobs for them. False with `error` set on failure.
    bool start(int count, std::string& error);

    // Hands out `jobs` to at most `limit` workers (the first ones, so that
    // a run on one worker uses the one that learned most) until none is left
    // and every worker is idle, passing each result to `onResult` and the
    // bytes of running transfers to `progress` (may be null). Workers beyond
    // the first start only once the jobs show the service slow (see
    // ServicePace) or for a warm-up. After an
    // interrupt no further job is handed out and the workers are asked to
    // cancel. While it waits for results it calls `idleWork` (if given), which
    // does a short piece of other work and says whether more is left. False
    // when `onResult` stopped it, an interrupt came, or no worker was left to
    // take the jobs.
    bool run(std::deque<Json::Value>& jobs, ResultHandler const& onResult, ProgressLine* progress,
             int limit = 1 << 20, std::function<bool()> const& idleWork = nullptr);

    // Starts up to `count` workers as soon as run() begins, each of which,
    // until a job is there for it, runs `job`: the listing of a folder the
    // work is expected to spread out from, so that their drive agents start
    // and confirm their way there while the first listings run, not after
    // them. The worker counts as in that folder. The first listing that
    // succeeds stands for the same job when it is queued (it is not sent
    // again); the others are dropped.
    // Call before start(), which drops the warm-up unless the node cache
    // knows an object named `probe` (a folder of the tree, say). With
    // `whenSlow` the workers beyond the first start only once the first job
    // shows the service slow, instead of at once.
    void warmUp(Json::Value job, size_t count, std::string probe, bool whenSlow = false) {
        _warm = std::move(job);
        _warmCount = count;
        _warmProbe = std::move(probe);
        _warmWhenSlow = whenSlow;
    }

    // Whether run() warms workers up (decided by start()).
    bool warming() const { return _warmCount > 0; }

    // How many workers were started.
    size_t started() const { return _workers.size(); }

    // Lets the workers flush their node caches and exit, then merges what
    // they learned into the destination's node cache file. False with
    // `error` set when the merged file could not be written.
    bool finish(std::string& error);

  private:
    struct Worker {
        pid_t pid = -1;
        int jobs = -1;     // parent's end for writing jobs
        int results = -1;  // parent's end for reading results
        std::string cacheFile;
        ino_t copiedInode = 0;  // its cache file's as copied, 0 if none
        bool withBase = true;   // it started from the base (or there was none)
        std::string received;   // a partial result line
        struct Sent {
            Json::Value job;
            ServicePace::Clock::time_point since;  // when it went out
            bool first = false;                    // the worker's first (its agent starts)
        };
        std::deque<Sent> sent;  // handed out, not answered yet: the first is running
        ServicePace::Clock::time_point answered;  // its last answer
        bool busy() const { return !sent.empty(); }
        // When its running job began: one queued behind another starts when
        // that one is answered.
        ServicePace::Clock::time_point runningSince() const {
            return std::max(sent.front().since, answered);
        }
        bool hadJob = false;           // any, a warm-up included
        std::string home = "//";       // the folder its last job worked in (none yet)
        std::set<std::string> listed;  // the folders it listed or made: its agent knows them whole
        std::set<std::string> known;   // the folders its agent knows the place of (listed
                                       // them, made them, or worked in them)
        bool limited = false;          // its running job met a rate limit
    };

    // A worker met a rate limit, or a job of it was answered without one:
    // the pool's pace follows (see ClientPace), shown on `progress` (may
    // be null) and, with -v, in a line of its own.
    void paceLimited(ProgressLine* progress);
    void paceClean(ProgressLine* progress);

    // What a job that succeeded taught the agent of `w` (see Worker::known).
    static void learnFrom(Worker& w, Json::Value const& job);

    void stopAll();
    bool spawn();
    // Waits for the worker `w` to end (it closed its results) and says how
    // it ended, for a person ("worker process ended by signal 9").
    std::string reap(Worker& w);
    bool readResults(Worker& worker, std::deque<Json::Value>& jobs, ResultHandler const& onResult,
                     ProgressLine* progress, bool& keepGoing);

    Session& _session;
    std::vector<Worker> _workers;
    std::string _folder;   // the workers' node cache copies
    int _folderLock = -1;  // held while the folder is in use (see makeWorkFolder)
    std::string _baseFile;
    bool _baseInDoubt = false;  // the node cache file could not be copied whole
    int _count = 1;
    bool _stopSent = false;
    std::set<std::string> _listed;  // the folders any worker listed
    Json::Value _warm;              // see warmUp
    size_t _warmCount = 0;
    bool _warmWhenSlow = false;
    std::string _warmProbe;
    Json::Value _warmAnswer;    // the first warm-up that succeeded, until used
    ServicePace _pace;          // whether workers beyond the first pay
    ClientPace _clientPace{1};  // the workers' pace under the service's rate limits
};

// The number of workers a command asked for (--transfers), at least 1.
int transfersOf(Session const& s);

// Runs `jobs` on a pool of `count` workers as start, run and finish do (no
// pool at all when there is no job); a merge that cannot be written is only
// warned about. False when the run failed; `error` is set when no worker
// could be started.
bool runOnWorkers(Session& s, int count, std::deque<Json::Value> jobs,
                  WorkerPool::ResultHandler const& onResult, ProgressLine* progress,
                  std::string& error);

}  // namespace gdhost
