#include "backup_script.h"

#include <list>
#include <optional>
#include <set>

#include "file_meta_store.h"

using DriveEmulator::Object;
using DriveEmulator::Placed;
using TAVO::Backup::FileInfo;
using TAVO::Backup::TransferAgentGoogleDrive;

namespace Sweep {

namespace {

char const kOldLocal[] = "what the destination held before the fetch";

std::string pseudoRandom(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    for (auto& b : bytes) {
        seed = seed * 1103515245u + 12345u;
        b = static_cast<char>(seed >> 16);
    }
    return bytes;
}

// The absolute path of a path of the target ("" the target itself, ".." the container).
std::string absolute(std::string const& path) {
    return path == ".." ? "/C" : path.empty() ? "/C/T" : "/C/T/" + path;
}

std::string line(Placed const& p) {
    return "/" + p.path + (p.object.isDir ? " folder" : " file " + p.object.md5);
}

// What an operation does to what it works on, beside reading.
enum Effect { Reads, Writes, Removes };

// Checks one run's operations through the control library, which is not
// logged and sends no request. It keeps a ledger: no operation may lose an
// object, or change its contents, that it had no business touching.
class Checker {
  public:
    Checker(Sandbox& box, std::vector<Finding>& findings, std::vector<Step>& failed,
            Hook const& hook)
        : _box(box), _findings(findings), _failed(failed), _hook(hook) {}

    // Starts `operation` on `path`, which it reads, writes (the contents of
    // what is there) or removes (with what is below).
    void begin(std::string const& operation, std::string const& path, Effect effect = Reads) {
        _step = {_step.index + 1, operation, absolute(path)};
        if (_hook) _hook(_step, false);
        _held = _box.drive->walk("root");
        _free.clear();
        for (auto const& p : _held) {
            std::string const at = "/" + p.path;
            if ((effect != Reads && at == _step.path) ||
                (effect == Removes && at.rfind(_step.path + "/", 0) == 0)) {
                _free.insert(p.object.id);
            }
        }
    }

    // Records the outcome of the operation begun; when it reported success,
    // `holds` (asked only then; none: nothing to check) must say that it did what it says.
    void expect(bool ok, std::function<bool()> const& holds) {
        std::set<std::string> now;
        for (auto const& p : _box.drive->walk("root")) now.insert(line(p));
        for (auto const& p : _held) {
            if (!_free.count(p.object.id) && !now.count(line(p))) {
                _findings.push_back({"the account keeps what the engine did not delete",
                                     _step.operation + ": lost " + line(p)});
            }
        }
        if (_hook) _hook(_step, true);
        if (!ok) {
            _failed.push_back(_step);
        } else if (holds && !holds()) {
            // A path found twice on the way is told apart from a plain wrong result.
            _findings.push_back(
                {_ambiguous ? "no two objects of one name" : "success did what it said",
                 _step.operation});
        }
        _ambiguous = false;
    }

    // The object at a path of the target; a missing or ambiguous path gives none.
    std::optional<Object> at(std::string const& path) {
        auto found = _box.drive->at(absolute(path));
        _ambiguous = _ambiguous || found.size() > 1;
        return found.size() == 1 ? std::optional<Object>(found[0]) : std::nullopt;
    }
    bool isFolder(std::string const& path) {
        auto object = at(path);
        return object && object->isDir;
    }
    bool holds(std::string const& path, std::string const& content) {
        auto object = at(path);
        return object && !object->isDir && _box.drive->content(object->id) == content;
    }
    // The children of `path` by name, or every file below it by relative path,
    // each as often as it is there.
    std::multiset<std::string> below(std::string const& path, bool recursive) {
        std::multiset<std::string> names;
        auto folder = at(path);
        for (auto const& [name, object] :
             folder ? _box.drive->walk(folder->id) : std::vector<Placed>{}) {
            if (recursive ? !object.isDir : name.find('/') == std::string::npos) {
                names.insert(name);
            }
        }
        return names;
    }

  private:
    Sandbox& _box;
    std::vector<Finding>& _findings;
    std::vector<Step>& _failed;
    Hook const& _hook;
    std::vector<Placed> _held;    // the account before the operation
    std::set<std::string> _free;  // ids the operation may change or delete
    Step _step{0, "", ""};
    bool _ambiguous = false;
};

std::string relative(std::string const& rpath, bool baseNameOnly) {
    std::string path = rpath.substr(std::min(rpath.size(), rpath.find_first_not_of('/')));
    return baseNameOnly ? path.substr(path.rfind('/') + 1) : path;
}

}  // namespace

void writeSources(Sandbox& box) {
    box.writeLocal("empty", "");
    box.writeLocal("one", "1");
    box.writeLocal("big1", pseudoRandom(1 << 20, 1));
    box.writeLocal("big3", pseudoRandom(3 << 20, 3));
    box.writeLocal("lock1", "lock, first version");
    box.writeLocal("lock2", "lock, second version, longer");
    box.writeLocal("scratch", "removed again");
}

void runBackup(Sandbox& box, TransferAgentGoogleDrive& agent, std::vector<Finding>& findings,
               std::vector<Step>& failed, Hook const& hook) {
    Checker check(box, findings, failed, hook);

    check.begin("createContainer C", "..");
    check.expect(agent.createContainer("C"), [&] { return check.isFolder(".."); });
    check.begin("createDir target", "");
    agent.setTargetId("");  // the target folder is made beside the others
    bool targetMade = agent.createDir("T");
    agent.setTargetId("T");
    check.expect(targetMade, [&] { return check.isFolder(""); });
    for (std::string dir : {"Pool", "Control", "Pool/0", "Pool/0/1", "Pool/old"}) {
        check.begin("createDir " + dir, dir);
        check.expect(agent.createDir(dir), [&] { return check.isFolder(dir); });
    }
    // Local source, remote path; the second "Control/lock" overwrites the first.
    std::pair<std::string, std::string> const uploads[] = {
        {"empty", "Pool/0/empty"},      {"one", "Pool/0/1/one"},   {"big1", "Pool/0/big1"},
        {"big3", "Pool/big3"},          {"lock1", "Control/lock"}, {"lock2", "Control/lock"},
        {"scratch", "Control/scratch"}, {"one", "Pool/old/f"}};
    for (auto const& [local, remote] : uploads) {
        std::string const content = readFile(box.localPath(local));
        check.begin("sendFile " + local + " " + remote, remote, Writes);
        check.expect(agent.sendFile(box.localPath(local), remote),
                     [&] { return check.holds(remote, content); });
    }

    for (bool recursive : {false, true}) {
        std::multiset<std::string> listed;
        std::list<FileInfo> infos;
        auto hook = [&listed](FileInfo const& info, void*) {
            if (info.isRegType()) listed.insert(relative(info.getRpath(), false));
            return true;
        };
        check.begin(recursive ? "listDirRecursive Pool" : "listDir Pool", "Pool");
        bool ok = recursive ? agent.listDirRecursive("Pool", hook, nullptr)
                            : agent.listDir("Pool", infos);
        for (auto const& info : infos) listed.insert(relative(info.getRpath(), true));
        check.expect(ok, [&] { return listed == check.below("Pool", recursive); });
    }

    // The engine fetches over a file it already has: it must end up whole or untouched.
    std::string const restored = box.localPath("restored");
    writeFile(restored, kOldLocal);
    check.begin("recvFile Pool/0/big1", "Pool/0/big1");
    bool fetched = agent.recvFile("Pool/0/big1", restored);
    check.expect(fetched, [&] { return readFile(restored) == readFile(box.localPath("big1")); });
    if (!fetched && readFile(restored) != kOldLocal) {
        findings.push_back({"no partial local content", "recvFile Pool/0/big1"});
    }

    check.begin("removeFile Control/scratch", "Control/scratch", Removes);
    check.expect(agent.removeFile("Control/scratch"), [&] { return !check.at("Control/scratch"); });
    check.begin("removeDirRecursive Pool/old", "Pool/old", Removes);
    check.expect(agent.removeDirRecursive("Pool/old"), [&] { return !check.at("Pool/old"); });
    // The cache file must load after every flush. checkCache drops the cache
    // when a folder of the backup layout is missing; while all of them are
    // there, nothing in this run gives it a reason to drop anything.
    auto cacheRecords = [&box]() -> long {
        TAVO::Backup::GoogleDriveTA::FileMetaStore store;
        return store.load(box.cacheFile()) ? long(store.size()) : -1;
    };
    check.begin("flushCache", "");
    check.expect(agent.flushCache(), [&] { return cacheRecords() >= 0; });
    check.begin("checkCache", "");
    bool const layoutThere = check.isFolder("..") && check.isFolder("") && check.isFolder("Pool") &&
                             check.isFolder("Control");
    long const cached = layoutThere ? cacheRecords() : -1;
    check.expect(agent.checkCache(), {});
    check.begin("flushCache", "");
    bool flushed = agent.flushCache();
    check.expect(flushed, [&] { return cacheRecords() >= 0; });
    if (flushed && cacheRecords() < cached) {
        findings.push_back({"checkCache keeps the cache", "checkCache"});
    }
}

}  // namespace Sweep
