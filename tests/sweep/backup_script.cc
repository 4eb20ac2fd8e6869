#include "backup_script.h"

#include <algorithm>
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

    // Records a failed operation; true when `ok`, so that checks run only then.
    bool reported(bool ok, std::string const& operation) {
        if (_after_each) _after_each();
        if (!ok) _failed.push_back(operation);
        return ok;
    }
    // A path found twice on the way is told apart from a plain wrong result.
    void expect(bool holds, std::string const& operation) {
        if (!holds) {
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
            auto& drive = _box.drive();
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
        return object && !object->isDir && _box.drive().content(object->id) == content;
    }
    // Every file below `folder`, as paths relative to it.
    std::set<std::string> filesBelow(std::string const& id, std::string const& prefix) {
        std::set<std::string> files;
        for (auto const& child : _box.drive().children(id)) {
            if (!child.isDir) files.insert(prefix + child.name);
            if (child.isDir) {
                auto below = filesBelow(child.id, prefix + child.name + "/");
                files.insert(below.begin(), below.end());
            }
        }
        return files;
    }

  private:
    Sandbox& _box;
    std::vector<Finding>& _findings;
    std::vector<std::string>& _failed;
    std::function<void()> const& _after_each;
    bool _ambiguous = false;
};

std::string baseName(std::string path) {
    while (!path.empty() && path.back() == '/') path.pop_back();
    return path.substr(path.rfind('/') + 1);
}

bool cacheLoads(std::string const& path) {
    TAVO::Backup::GoogleDriveTA::FileMetaStore store;
    return store.load(path);
}

}  // namespace

void writeSources(Sandbox& box) {
    writeFile(box.local("empty"), "");
    writeFile(box.local("one"), "1");
    writeFile(box.local("big1"), pseudoRandom(1 << 20, 1));
    writeFile(box.local("big3"), pseudoRandom(3 << 20, 3));
    writeFile(box.local("lock1"), "lock, first version");
    writeFile(box.local("lock2"), "lock, second version, longer");
    writeFile(box.local("scratch"), "removed again");
}

void runBackup(Sandbox& box, TransferAgentGoogleDrive& agent, std::vector<Finding>& findings,
               std::vector<std::string>& failed, std::function<void()> const& afterEach) {
    Checker check(box, findings, failed, afterEach);

    if (check.reported(agent.createContainer("C"), "createContainer C")) {
        check.expect(check.isFolder(".."), "createContainer C");
    }
    agent.setTargetId("");  // the target folder is made beside the others
    bool targetMade = agent.createDir("T");
    agent.setTargetId("T");
    if (check.reported(targetMade, "createDir target")) {
        check.expect(check.isFolder(""), "createDir target");
    }
    for (char const* dir : {"Pool", "Control", "Pool/0", "Pool/0/1", "Pool/old"}) {
        std::string op = std::string("createDir ") + dir;
        if (check.reported(agent.createDir(dir), op)) check.expect(check.isFolder(dir), op);
    }

    struct Upload {
        char const* local;
        char const* remote;
    };
    for (auto const& up : {Upload{"empty", "Pool/0/empty"}, Upload{"one", "Pool/0/1/one"},
                           Upload{"big1", "Pool/0/big1"}, Upload{"big3", "Pool/big3"},
                           Upload{"lock1", "Control/lock"}, Upload{"lock2", "Control/lock"},
                           Upload{"scratch", "Control/scratch"}, Upload{"one", "Pool/old/f"}}) {
        std::string op = std::string("sendFile ") + up.local + " " + up.remote;
        if (check.reported(agent.sendFile(box.local(up.local), up.remote), op)) {
            check.expect(check.holds(up.remote, readFile(box.local(up.local))), op);
        }
    }

    std::list<FileInfo> listed;
    if (check.reported(agent.listDir("Pool", listed), "listDir Pool")) {
        std::set<std::string> names, expected;
        for (auto const& info : listed) names.insert(baseName(info.getRpath()));
        if (auto pool = check.at("Pool")) {
            for (auto const& child : box.drive().children(pool->id)) expected.insert(child.name);
        }
        check.expect(names == expected, "listDir Pool");
    }

    std::set<std::string> files;
    auto hook = [&files](FileInfo const& info, void*) {
        std::string rpath = info.getRpath();
        if (info.isRegType()) files.insert(rpath.substr(rpath.find_first_not_of('/')));
        return true;
    };
    if (check.reported(agent.listDirRecursive("Pool", hook, nullptr), "listDirRecursive Pool")) {
        auto pool = check.at("Pool");
        check.expect(pool && files == check.filesBelow(pool->id, ""), "listDirRecursive Pool");
    }

    // The engine fetches over a file it already has: it must end up whole or untouched.
    std::string const restored = box.local("restored");
    writeFile(restored, kOldLocal);
    bool fetched = agent.recvFile("Pool/0/big1", restored);
    if (check.reported(fetched, "recvFile Pool/0/big1")) {
        check.expect(readFile(restored) == readFile(box.local("big1")), "recvFile Pool/0/big1");
    } else if (readFile(restored) != kOldLocal) {
        findings.push_back({"no partial local content", "recvFile Pool/0/big1"});
    }

    if (check.reported(agent.removeFile("Control/scratch"), "removeFile Control/scratch")) {
        check.expect(!check.at("Control/scratch"), "removeFile Control/scratch");
    }
    if (check.reported(agent.removeDirRecursive("Pool/old"), "removeDirRecursive Pool/old")) {
        check.expect(!check.at("Pool/old"), "removeDirRecursive Pool/old");
    }
    check.reported(agent.checkCache(), "checkCache");
    if (check.reported(agent.flushCache(), "flushCache")) {
        check.expect(cacheLoads(box.cacheFile()), "flushCache");
    }
}

}  // namespace Sweep
