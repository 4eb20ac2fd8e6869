#include "backup_script.h"

#include <list>
#include <optional>
#include <set>

#include "file_meta_store.h"

using DriveEmulator::Object;
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

// Checks one run's operations through the control library, which is not
// logged and sends no request.
class Checker {
  public:
    Checker(Sandbox& box, std::vector<Finding>& findings, std::vector<std::string>& failed,
            std::function<void()> const& afterEach)
        : _box(box), _findings(findings), _failed(failed), _after_each(afterEach) {}

    // Records the outcome of `operation`; when it reported success, `holds`
    // (asked only then; none: nothing to check) must say that it did what it says.
    void expect(bool ok, std::string const& operation, std::function<bool()> const& holds) {
        if (_after_each) _after_each();
        if (!ok) {
            _failed.push_back(operation);
        } else if (holds && !holds()) {
            // A path found twice on the way is told apart from a plain wrong result.
            _findings.push_back(
                {_ambiguous ? "no two objects of one name" : "success did what it said",
                 operation});
        }
        _ambiguous = false;
    }

    // The object at a path of the target ("" the target itself, ".." the
    // container); a missing or ambiguous path gives none.
    std::optional<Object> at(std::string const& path) {
        try {
            auto& drive = *_box.drive;
            return drive.stat(drive.idByPath(path == ".." ? "/C" : "/C/T/" + path));
        } catch (DriveEmulator::Error const& e) {
            _ambiguous = _ambiguous || e.code() == 400;
            return std::nullopt;
        }
    }
    bool isFolder(std::string const& path) {
        auto object = at(path);
        return object && object->isDir;
    }
    bool holds(std::string const& path, std::string const& content) {
        auto object = at(path);
        return object && !object->isDir && _box.drive->content(object->id) == content;
    }
    // The children of `path` by name, or every file below it by relative path.
    std::set<std::string> below(std::string const& path, bool recursive) {
        std::set<std::string> names;
        if (auto folder = at(path)) collect(folder->id, "", recursive, names);
        return names;
    }

  private:
    void collect(std::string const& id, std::string const& prefix, bool recursive,
                 std::set<std::string>& names) {
        for (auto const& child : _box.drive->children(id)) {
            if (!recursive || !child.isDir) names.insert(prefix + child.name);
            if (recursive && child.isDir) collect(child.id, prefix + child.name + "/", true, names);
        }
    }

    Sandbox& _box;
    std::vector<Finding>& _findings;
    std::vector<std::string>& _failed;
    std::function<void()> const& _after_each;
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
               std::vector<std::string>& failed, std::function<void()> const& afterEach) {
    Checker check(box, findings, failed, afterEach);

    check.expect(agent.createContainer("C"), "createContainer C",
                 [&] { return check.isFolder(".."); });
    agent.setTargetId("");  // the target folder is made beside the others
    bool targetMade = agent.createDir("T");
    agent.setTargetId("T");
    check.expect(targetMade, "createDir target", [&] { return check.isFolder(""); });
    for (std::string dir : {"Pool", "Control", "Pool/0", "Pool/0/1", "Pool/old"}) {
        check.expect(agent.createDir(dir), "createDir " + dir, [&] { return check.isFolder(dir); });
    }
    // Local source, remote path; the second "Control/lock" overwrites the first.
    std::pair<std::string, std::string> const uploads[] = {
        {"empty", "Pool/0/empty"},      {"one", "Pool/0/1/one"},   {"big1", "Pool/0/big1"},
        {"big3", "Pool/big3"},          {"lock1", "Control/lock"}, {"lock2", "Control/lock"},
        {"scratch", "Control/scratch"}, {"one", "Pool/old/f"}};
    for (auto const& [local, remote] : uploads) {
        check.expect(agent.sendFile(box.localPath(local), remote),
                     "sendFile " + local + " " + remote,
                     [&] { return check.holds(remote, readFile(box.localPath(local))); });
    }

    for (bool recursive : {false, true}) {
        std::set<std::string> listed;
        std::list<FileInfo> infos;
        auto hook = [&listed](FileInfo const& info, void*) {
            if (info.isRegType()) listed.insert(relative(info.getRpath(), false));
            return true;
        };
        bool ok = recursive ? agent.listDirRecursive("Pool", hook, nullptr)
                            : agent.listDir("Pool", infos);
        for (auto const& info : infos) listed.insert(relative(info.getRpath(), true));
        check.expect(ok, recursive ? "listDirRecursive Pool" : "listDir Pool",
                     [&] { return listed == check.below("Pool", recursive); });
    }

    // The engine fetches over a file it already has: it must end up whole or untouched.
    std::string const restored = box.localPath("restored");
    writeFile(restored, kOldLocal);
    bool fetched = agent.recvFile("Pool/0/big1", restored);
    check.expect(fetched, "recvFile Pool/0/big1",
                 [&] { return readFile(restored) == readFile(box.localPath("big1")); });
    if (!fetched && readFile(restored) != kOldLocal) {
        findings.push_back({"no partial local content", "recvFile Pool/0/big1"});
    }

    check.expect(agent.removeFile("Control/scratch"), "removeFile Control/scratch",
                 [&] { return !check.at("Control/scratch"); });
    check.expect(agent.removeDirRecursive("Pool/old"), "removeDirRecursive Pool/old",
                 [&] { return !check.at("Pool/old"); });
    // The cache file must load after every flush. checkCache drops the cache
    // when a folder of the backup layout is missing; while all of them are
    // there, nothing in this run gives it a reason to drop anything.
    auto cacheRecords = [&box]() -> long {
        TAVO::Backup::GoogleDriveTA::FileMetaStore store;
        return store.load(box.cacheFile()) ? long(store.size()) : -1;
    };
    check.expect(agent.flushCache(), "flushCache", [&] { return cacheRecords() >= 0; });
    bool const layoutThere = check.isFolder("..") && check.isFolder("") && check.isFolder("Pool") &&
                             check.isFolder("Control");
    long const cached = layoutThere ? cacheRecords() : -1;
    check.expect(agent.checkCache(), "checkCache", {});
    bool flushed = agent.flushCache();
    check.expect(flushed, "flushCache", [&] { return cacheRecords() >= 0; });
    if (flushed && cacheRecords() < cached) {
        findings.push_back({"checkCache keeps the cache", "checkCache"});
    }
}

}  // namespace Sweep
