#include "parallel_tree.h"

#include <algorithm>
#include <cstdio>
#include <deque>

#include "backup/error.h"
#include "interrupt.h"
#include "remote_tree.h"
#include "workers.h"

namespace gdhost {

using namespace TAVO::Backup;

namespace {

Json::Value job(char const* op, std::string const& remote) {
    Json::Value value(Json::objectValue);
    value["op"] = op;
    value["remote"] = remote;
    return value;
}

// Notes the first failure of a run: its code and path.
struct FirstFailure {
    int code = ERR_NONE;
    std::string path;
    bool note(Json::Value const& job, Json::Value const& result) {
        if (result["ok"].asBool()) return true;
        if (code == ERR_NONE) {
            code = result["code"].asInt();
            path = job["remote"].asString();
        }
        return false;
    }
};

bool failedWith(int code, std::string const& path, std::string& failed) {
    failed = path;
    setError(code);
    return false;
}

// Sets the engine's error state from a run that failed.
void noteFailure(FirstFailure const& failure, std::string& failed) {
    failed = failure.path;
    setError(interrupted() ? ERR_CANCELED : failure.code != ERR_NONE ? failure.code : ERR_GENERAL);
}

}  // namespace

TreeWorkers::~TreeWorkers() {
    std::string error;
    if (_started && !_pool.finish(error))
        fprintf(stderr, "gdrive_host: node cache not updated: %s\n", error.c_str());
}

bool TreeWorkers::ready() {
    if (!_started) _started = _pool.start(transfersOf(_session), _error);
    if (!_started) fprintf(stderr, "gdrive_host: %s\n", _error.c_str());
    return _started;
}

bool TreeWorkers::list(std::string const& top, bool missingIsEmpty,
                       std::map<std::string, FileInfo>& entries, std::string& failed) {
    std::deque<Json::Value> jobs{job("list", top)};
    jobs.front()["folder"] = "";
    FirstFailure failure;
    auto onResult = [&](Json::Value const& done, Json::Value const& result,
                        std::deque<Json::Value>& more) {
        if (!failure.note(done, result)) return false;
        std::string const folder = done["folder"].asString();
        Json::Value const& listed = result["entries"];
        std::vector<std::string> names;
        for (Json::Value const& e : listed) names.push_back(e["name"].asString());
        std::sort(names.begin(), names.end());
        for (Json::Value const& e : listed) {
            std::string const name = e["name"].asString();
            FileInfo info(name);
            if (e["dir"].asBool()) {
                info.setDirType();
            } else {
                info.setRegType();
            }
            info.setSize(e["size"].asInt64());
            info.setMtime(e["mtime"].asInt64());
            info.setChecksum(e["md5"].asString());
            std::string const rpath = joinPath(folder, name);
            entries[rpath] = info;
            auto range = std::equal_range(names.begin(), names.end(), name);
            // A name shared in one folder cannot be named by a path.
            if (info.isDirType() && range.second - range.first == 1) {
                more.push_back(job("list", joinPath(top, rpath)));
                more.back()["folder"] = rpath;
            }
        }
        return true;
    };
    if (!ready()) return failedWith(ERR_GENERAL, top, failed);
    if (_pool.run(jobs, onResult, nullptr)) return true;
    noteFailure(failure, failed);
    if (missingIsEmpty && getError() == ERR_REMOTE_NOT_FOUND && failed == top) {
        entries.clear();
        return true;
    }
    return false;
}

bool TreeWorkers::makeFolders(std::string const& top, std::vector<std::string> const& folders,
                              std::string& failed) {
    std::deque<Json::Value> jobs;
    if (!top.empty()) {
        jobs.push_back(job("mkdir", top));
        jobs.back()["parents"] = true;
    }
    for (auto const& folder : folders) jobs.push_back(job("mkdir", folder));
    if (jobs.empty()) return true;
    FirstFailure failure;
    auto onResult = [&](Json::Value const& done, Json::Value const& result,
                        std::deque<Json::Value>&) { return failure.note(done, result); };
    if (!ready()) return failedWith(ERR_GENERAL, top, failed);
    if (_pool.run(jobs, onResult, nullptr, 1)) return true;
    noteFailure(failure, failed);
    return false;
}

bool transferOnWorkers(Session& s, bool send, std::vector<TransferItem> const& items,
                       ProgressLine& line, std::string& failed) {
    std::deque<Json::Value> jobs;
    for (auto const& item : items) {
        jobs.push_back(job(send ? "send" : "recv", item.remote));
        jobs.back()["local"] = item.local;
        jobs.back()["size"] = static_cast<Json::Int64>(item.size);
    }
    FirstFailure failure;
    auto onResult = [&](Json::Value const& done, Json::Value const& result,
                        std::deque<Json::Value>&) { return failure.note(done, result); };
    std::string error;
    if (runOnWorkers(s, transfersOf(s), jobs, onResult, &line, error)) return true;
    if (!error.empty()) fprintf(stderr, "gdrive_host: %s\n", error.c_str());
    noteFailure(failure, failed);
    return false;
}

}  // namespace gdhost
