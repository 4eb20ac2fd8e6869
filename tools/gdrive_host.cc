// gdrive_host: a stand-in for the backup engine on the command line. It
// loads libtransfer_googledrive.so with dlopen, builds a transfer agent for
// one destination and runs one command through the engine's interface.
//
// Unless TAVO_ROOT is already set, the drive agent is the embedded emulator,
// laid out under the work folder (--workdir, default ./gdrive-work): the
// account lives in WORK/data, the engine's cache folders in WORK/cache.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "backup/error.h"
#include "backup/path.h"
#include "backup/transfer_agent.h"
#include "drive_control.h"

using namespace TAVO::Backup;

namespace {

struct Options {
    std::string plugin = DEFAULT_PLUGIN_PATH;
    std::string workdir = "gdrive-work";
    std::string container = "Backups";
    std::string target = "nas1.hbk";
    std::string refreshToken = "ZGVtby1yZWZyZXNoLXRva2Vu";
    bool debug = false;
    std::vector<std::string> words;
};

void usage() {
    fprintf(stderr,
            "usage: gdrive_host [options] COMMAND [ARGS]\n"
            "options: --workdir DIR  --container NAME  --target ID  --plugin PATH\n"
            "         --refresh-token TOKEN  --debug\n"
            "commands:\n"
            "  account                  account e-mail, user and quota\n"
            "  mkcontainer              create the container folder\n"
            "  mkdir PATH               create a folder of the target\n"
            "  put LOCAL PATH           store a local file\n"
            "  get PATH LOCAL           fetch a file\n"
            "  stat PATH | ls [PATH] | lsr [PATH] | containers\n"
            "  rm PATH | rmdir PATH     remove a file / a folder tree\n"
            "  check-cache              verify the node cache against the service\n"
            "  demo                     a small backup and restore, end to end\n");
}

bool parseArgs(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        if (a == "--workdir") {
            if (!value(o.workdir)) return false;
        } else if (a == "--container") {
            if (!value(o.container)) return false;
        } else if (a == "--target") {
            if (!value(o.target)) return false;
        } else if (a == "--plugin") {
            if (!value(o.plugin)) return false;
        } else if (a == "--refresh-token") {
            if (!value(o.refreshToken)) return false;
        } else if (a == "--debug") {
            o.debug = true;
        } else if (a == "-h" || a == "--help") {
            return false;
        } else {
            o.words.push_back(a);
        }
    }
    return !o.words.empty();
}

// Progress on stderr, one line per 10% so that logs stay readable.
TransferAgent::ProgressHook progressPrinter(char const* what, long total) {
    auto done = std::make_shared<long>(0);
    auto shown = std::make_shared<int>(-1);
    return [=](long delta) {
        *done += delta;
        int tenth = total > 0 ? static_cast<int>(*done * 10 / total) : 10;
        if (tenth != *shown) {
            *shown = tenth;
            fprintf(stderr, "  %s %ld/%ld bytes\n", what, *done, total);
        }
        return true;
    };
}

long localSize(std::string const& path) {
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) return 0;
    fseek(f, 0, SEEK_END);
    long size = ftell(f);
    fclose(f);
    return size;
}

void printInfo(FileInfo const& info) {
    printf("%-4s %12lld  %10lld  %-32s  %s\n", info.isDirType() ? "dir" : "file",
           static_cast<long long>(info.getSize()), static_cast<long long>(info.getMtime()),
           info.getChecksum().c_str(), info.getRpath().c_str());
}

class Host {
  public:
    Host(Options const& options, TransferAgent* agent) : _o(options), _agent(agent) {}

    int run(std::vector<std::string> const& w) {
        std::string const& cmd = w[0];
        auto arg = [&](size_t i) { return i < w.size() ? w[i] : std::string(); };
        bool ok = false;
        if (cmd == "account") {
            AccountInfo info;
            ok = _agent->getAccountInfo(info);
            if (ok) {
                printf("account: %s\nuser: %s\nused: %lld bytes\nquota: %s\n", info.account.c_str(),
                       info.userName.c_str(), static_cast<long long>(info.usedSize),
                       info.isUnlimitedQuota ? "unlimited" : std::to_string(info.quota).c_str());
            }
        } else if (cmd == "mkcontainer") {
            ok = _agent->createContainer(_o.container);
        } else if (cmd == "mkdir" && w.size() == 2) {
            ok = _agent->createDir(arg(1));
        } else if (cmd == "put" && w.size() == 3) {
            FileInfo info(arg(2));
            ok = _agent->sendFile(arg(1), arg(2), progressPrinter("sent", localSize(arg(1))), true,
                                  info);
            if (ok) printInfo(info);
        } else if (cmd == "get" && w.size() == 3) {
            FileInfo info(arg(1));
            ok =
                _agent->stat(arg(1), info) &&
                _agent->recvFile(arg(1), arg(2), progressPrinter("received", info.getSize()), info);
        } else if (cmd == "stat" && w.size() == 2) {
            FileInfo info(arg(1));
            ok = _agent->stat(arg(1), info);
            if (ok) printInfo(info);
        } else if (cmd == "ls") {
            std::list<FileInfo> list;
            ok = _agent->listDir(arg(1), list);
            for (auto const& info : list) printInfo(info);
        } else if (cmd == "lsr") {
            ok = _agent->listDirRecursive(
                arg(1),
                [](FileInfo const& info, void*) {
                    printInfo(info);
                    return true;
                },
                nullptr);
        } else if (cmd == "containers") {
            std::list<FileInfo> list;
            ok = _agent->listContainer(list);
            for (auto const& info : list) printInfo(info);
        } else if (cmd == "rm" && w.size() == 2) {
            ok = _agent->removeFile(arg(1));
        } else if (cmd == "rmdir" && w.size() == 2) {
            ok = _agent->removeDirRecursive(arg(1));
        } else if (cmd == "check-cache") {
            ok = _agent->checkCache();
        } else if (cmd == "demo") {
            ok = demo();
        } else {
            usage();
            return 2;
        }
        _agent->flushCache();
        if (!ok) {
            fprintf(stderr, "gdrive_host: %s failed, error %d\n", cmd.c_str(), getError());
            return 1;
        }
        return 0;
    }

  private:
    bool step(char const* what, bool ok) {
        fprintf(stderr, "%s %s\n", ok ? "ok  " : "FAIL", what);
        if (!ok) fprintf(stderr, "     error %d\n", getError());
        return ok;
    }

    // Backs a small folder tree up and restores it, as a backup run would.
    bool demo() {
        std::string src = Path::join(_o.workdir, "demo-src");
        std::string restore = Path::join(_o.workdir, "demo-restore");
        if (system(("mkdir -p '" + src + "' '" + restore + "'").c_str()) != 0) return false;
        std::map<std::string, std::string> files = {
            {"Control/info.json", "{\"version\":1}\n"},
            {"Pool/0/bucket.1", std::string(3 << 20, 'a')},
            {"Pool/0/bucket.2", "small bucket\n"},
            {"Pool/empty.idx", ""},
        };
        for (auto const& f : files) {
            std::string local = Path::join(src, f.first);
            if (system(("mkdir -p '" + Path::dirname(local) + "'").c_str()) != 0) return false;
            FILE* out = fopen(local.c_str(), "wb");
            if (!out) return false;
            fwrite(f.second.data(), 1, f.second.size(), out);
            fclose(out);
        }
        AccountInfo account;
        bool ok = step("account", _agent->getAccountInfo(account)) &&
                  step("create container", _agent->createContainer(_o.container));
        ok = ok && step("create target folder", makeTargetFolder());
        for (char const* dir : {"Control", "Pool", "Pool/0"}) {
            ok = ok && step((std::string("mkdir ") + dir).c_str(), _agent->createDir(dir));
        }
        for (auto const& f : files) {
            FileInfo info(f.first);
            ok = ok && step(("upload " + f.first).c_str(),
                            _agent->sendFile(Path::join(src, f.first), f.first,
                                             TransferAgent::ProgressHook(), true, info));
        }
        std::list<FileInfo> list;
        ok = ok && step("list Pool", _agent->listDir("Pool", list));
        for (auto const& info : list) printInfo(info);
        for (auto const& f : files) {
            std::string local = Path::join(restore, f.first);
            ok = ok && system(("mkdir -p '" + Path::dirname(local) + "'").c_str()) == 0;
            ok = ok && step(("download " + f.first).c_str(), _agent->recvFile(f.first, local));
            ok =
                ok &&
                step(
                    ("compare " + f.first).c_str(),
                    system(("cmp -s '" + Path::join(src, f.first) + "' '" + local + "'").c_str()) ==
                        0);
        }
        ok = ok && step("verify node cache", _agent->checkCache());
        ok = ok && step("flush node cache", _agent->flushCache());
        if (ok) printf("demo finished: %zu files backed up and restored intact\n", files.size());
        return ok;
    }

    // createDir works below the target folder, so the target folder itself is
    // made as a child of the container, with the target id set aside.
    bool makeTargetFolder() {
        std::string saved = _agent->getTargetId();
        _agent->setTargetId("");
        bool ok = _agent->createDir(_o.target);
        _agent->setTargetId(saved);
        return ok;
    }

    Options const& _o;
    TransferAgent* _agent;
};

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parseArgs(argc, argv, o)) {
        usage();
        return 2;
    }
    if (system(("mkdir -p '" + o.workdir + "'").c_str()) != 0) return 1;
    char resolved[4096];
    if (realpath(o.workdir.c_str(), resolved)) o.workdir = resolved;

    if (!getenv("TAVO_ROOT")) {
        std::string root = Path::join(o.workdir, "agent-root");
        try {
            DriveEmulator::makeAgentRoot(root, Path::join(o.workdir, "data"));
        } catch (std::exception const& e) {
            fprintf(stderr, "gdrive_host: cannot lay out the emulator: %s\n", e.what());
            return 1;
        }
        setenv("TAVO_ROOT", root.c_str(), 1);
        unsetenv("DRIVE_EMULATOR_DATA");
    }
    if (o.debug) {
        TransferAgent::setDebug(true);
        TransferAgent::setDebugSink(
            [](std::string const& line) { fprintf(stderr, "debug: %s\n", line.c_str()); });
    }

    void* module = dlopen(o.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) {
        fprintf(stderr, "gdrive_host: %s\n", dlerror());
        return 1;
    }
    typedef TransferAgent* (*GetAgent)(Repository const&);
    auto getAgent = reinterpret_cast<GetAgent>(dlsym(module, "getTransferAgent"));
    if (!getAgent) {
        fprintf(stderr, "gdrive_host: no getTransferAgent in %s\n", o.plugin.c_str());
        return 1;
    }

    Repository repository;
    repository.options().set(Repository::SZK_REMOTE_BUCKET, o.container);
    repository.options().set(Repository::SZK_REMOTE_REFRESH_TOKEN, o.refreshToken);
    repository.setCacheRoot(Path::join(o.workdir, "cache"));

    int rc;
    {
        std::unique_ptr<TransferAgent> agent(getAgent(repository));
        agent->setTargetId(o.target);
        agent->setTransferOption(Task(o.target));
        if (!agent->isValid()) {
            fprintf(stderr, "gdrive_host: destination settings are incomplete (error %d)\n",
                    getError());
            return 1;
        }
        rc = Host(o, agent.get()).run(o.words);
    }
    dlclose(module);
    return rc;
}
