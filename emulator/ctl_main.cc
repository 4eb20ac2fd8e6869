// drive_emulator_ctl: the control library as a command, for people and
// scripts. Wherever an object is expected, an argument starting with "/" is a
// path from the root; anything else is an id ("root" included).
#include <json/writer.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "drive_control.h"
#include "other_client.h"

using namespace DriveEmulator;

namespace {

char const kUsage[] = R"(usage: drive_emulator_ctl [--data DIR] COMMAND [ARGS]
The data folder is DIR, else $DRIVE_EMULATOR_DATA.

  init [--quota BYTES] [--email ADDRESS] [--user NAME]   fresh account (erases the folder)
  account                          email, user name, quota, used size, root id
  quota BYTES|unlimited            change the quota
  tree [OBJ]                       the folder tree below OBJ (default: the root)
  ls [-a] [OBJ]                    children of OBJ (-a: trashed ones too)
  stat OBJ                         one object's record
  mkdir PARENT NAME                prints the new id
  put PARENT NAME LOCALFILE        upload a local file; prints the new id
  get OBJ LOCALFILE                download to a local file
  cat OBJ                          contents to stdout
  mv OBJ NEWPARENT                 replace all parents
  rename OBJ NAME
  addparent OBJ PARENT             give OBJ another parent
  rmparent OBJ PARENT
  dup OBJ                          another object of the same name beside it; prints its id
  change KIND OBJ [FOLDER]         what another client does: delete move FOLDER rename
                                   recreate copy copy_other case_twin second_parent FOLDER
  recreate OBJ                     replace OBJ and all below by copies under new ids; prints its id
  trash OBJ | untrash OBJ
  rm OBJ                           delete for good (descendants without another parent too)
  touch OBJ SECONDS                set the modification time
  settings [KEY=VALUE ...]         page_size, list_trashed, progress_bytes, fsync,
                                   log_rows
  fault add KIND [--fn NAME] [--nth N] [--times N | --always] [--code C]
                 [--message TEXT] [--number N] [--fractions F,F,...]
        fires on N (default 1) matching requests from the nth on
        KIND: fail delay exit exit_after_apply cut_answer exit_after_progress
              garbage short_download long_download progress refuse_handshake
              listing_lag repeat_listing fail_after_apply former_parent
  fault list | fault clear
  log [--fn NAME] | log clear | log count [FN]
  stats                            object counts, sizes and requests by name
)";

struct Usage {
    std::string message;
};

class Args {
  public:
    Args(std::vector<std::string> args) : _args(std::move(args)) {}
    bool empty() const { return _pos >= _args.size(); }
    std::string next(char const* what) {
        if (empty()) throw Usage{std::string("missing ") + what};
        return _args[_pos++];
    }
    std::string nextOr(std::string fallback) { return empty() ? fallback : _args[_pos++]; }
    bool take(char const* flag) {
        if (!empty() && _args[_pos] == flag) {
            ++_pos;
            return true;
        }
        return false;
    }
    void done() {
        if (!empty()) throw Usage{"unexpected argument: " + _args[_pos]};
    }

  private:
    std::vector<std::string> _args;
    size_t _pos = 0;
};

std::int64_t number(std::string const& text) {
    try {
        size_t used = 0;
        long long value = std::stoll(text, &used);
        if (used == text.size()) return value;
    } catch (std::exception const&) {
    }
    throw Usage{"not a number: " + text};
}

std::string resolve(Drive& drive, std::string const& arg) {
    return !arg.empty() && arg[0] == '/' ? drive.idByPath(arg) : arg;
}

std::string timeText(std::int64_t seconds) {
    std::time_t t = static_cast<std::time_t>(seconds);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", std::gmtime(&t));
    return buffer;
}

void printObject(Object const& o) {
    std::cout << "id       " << o.id << "\nname     " << o.name << "\nkind     "
              << (o.isDir ? "folder" : "file") << "\nparents ";
    for (auto const& p : o.parents) std::cout << " " << p;
    std::cout << "\nsize     " << o.size << "\nmtime    " << o.mtime << " (" << timeText(o.mtime)
              << " UTC)\nmd5      " << o.md5 << "\ntrashed  " << (o.trashed ? "yes" : "no") << "\n";
}

void printLine(Object const& o) {
    std::cout << o.id << "  " << (o.isDir ? "d" : "-") << (o.trashed ? "T" : " ") << " " << o.size
              << "\t" << o.name << (o.isDir ? "/" : "") << "\n";
}

void printTree(Drive& drive, std::string const& id) {
    for (auto const& [path, child] : drive.walk(id, true)) {
        std::cout << std::string(2 + 2 * std::count(path.begin(), path.end(), '/'), ' ')
                  << child.name << (child.isDir ? "/" : "") << (child.trashed ? "  [trashed]" : "")
                  << "  (" << child.id;
        if (!child.isDir) std::cout << ", " << child.size << " bytes";
        std::cout << ")\n";
    }
}

void printFault(Fault const& f) {
    std::cout << "#" << f.id << " " << faultKindName(f.kind) << " fn=" << f.fn;
    if (f.nth > 0) std::cout << " nth=" << f.nth;
    if (f.times < 0) {
        std::cout << " always";
    } else {
        std::cout << " remaining=" << f.times;
    }
    if (f.kind == FaultKind::Fail || f.kind == FaultKind::FailAfterApply)
        std::cout << " code=" << f.code;
    if (!f.text.empty()) std::cout << " text=\"" << f.text << "\"";
    if (f.number) std::cout << " number=" << f.number;
    if (!f.fractions.empty()) {
        std::cout << " fractions=";
        for (size_t i = 0; i < f.fractions.size(); ++i) {
            std::cout << (i ? "," : "") << f.fractions[i];
        }
    }
    std::cout << " seen=" << f.seen << " fired=" << f.fired << "\n";
}

Fault parseFault(Args& args) {
    Fault fault;
    fault.kind = faultKindFromName(args.next("fault kind"));
    if (fault.kind == FaultKind::ShortDownload || fault.kind == FaultKind::LongDownload) {
        fault.fn = "downloadFile";
    }
    while (!args.empty()) {
        if (args.take("--fn")) {
            fault.fn = args.next("request name");
        } else if (args.take("--nth")) {
            fault.onNth(static_cast<int>(number(args.next("N"))));
        } else if (args.take("--times")) {
            fault.forNext(static_cast<int>(number(args.next("N"))));
        } else if (args.take("--always")) {
            fault.always();
        } else if (args.take("--code")) {
            fault.code = static_cast<int>(number(args.next("code")));
        } else if (args.take("--message") || args.take("--line")) {
            fault.text = args.next("text");
        } else if (args.take("--number") || args.take("--ms") || args.take("--count")) {
            fault.number = number(args.next("number"));
        } else if (args.take("--fractions")) {
            std::stringstream list(args.next("fractions"));
            std::string item;
            while (std::getline(list, item, ',')) fault.fractions.push_back(std::stod(item));
        } else {
            throw Usage{"unknown fault option: " + args.next("")};
        }
    }
    return fault;
}

void settingsCommand(Drive& drive, Args& args) {
    Settings s = drive.settings();
    bool changed = false;
    while (!args.empty()) {
        std::string pair = args.next("KEY=VALUE");
        size_t eq = pair.find('=');
        if (eq == std::string::npos) throw Usage{"expected KEY=VALUE: " + pair};
        std::string key = pair.substr(0, eq);
        std::int64_t value = number(pair.substr(eq + 1));
        if (key == "page_size") {
            s.pageSize = static_cast<int>(value);
        } else if (key == "list_trashed") {
            s.listTrashed = value != 0;
        } else if (key == "progress_bytes") {
            s.progressBytes = value;
        } else if (key == "fsync") {
            s.fsync = value != 0;
        } else if (key == "log_rows") {
            s.logRows = value;
        } else {
            throw Usage{"unknown setting: " + key};
        }
        changed = true;
    }
    if (changed) drive.setSettings(s);
    std::cout << "page_size=" << s.pageSize << "\nlist_trashed=" << s.listTrashed
              << "\nprogress_bytes=" << s.progressBytes << "\nfsync=" << s.fsync
              << "\nlog_rows=" << s.logRows << "\n";
}

void logCommand(Drive& drive, Args& args) {
    if (args.take("clear")) {
        args.done();
        drive.clearRequestLog();
        return;
    }
    if (args.take("count")) {
        std::string fn = args.nextOr("*");
        args.done();
        std::cout << drive.countRequests(fn) << "\n";
        return;
    }
    args.take("show");
    std::string only;
    if (args.take("--fn")) only = args.next("request name");
    args.done();
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    for (auto const& e : drive.requestLog()) {
        if (!only.empty() && e.fn != only) continue;
        std::time_t t = static_cast<std::time_t>(e.time);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%H:%M:%S", std::localtime(&t));
        std::cout << e.seq << " " << stamp << " pid " << e.pid << " " << e.fn << " "
                  << Json::writeString(writer, e.args) << " -> "
                  << (e.success ? "ok" : "failed " + std::to_string(e.errorCode));
        if (!e.message.empty()) std::cout << " \"" << e.message << "\"";
        std::cout << "\n";
    }
}

void statsCommand(Drive& drive) {
    std::int64_t folders = 0, files = 0, trashed = 0;
    std::vector<std::string> pending = {drive.rootId()};
    std::map<std::string, bool> seen;
    while (!pending.empty()) {
        std::string id = pending.back();
        pending.pop_back();
        for (auto const& child : drive.children(id, true)) {
            if (seen[child.id]) continue;
            seen[child.id] = true;
            (child.isDir ? folders : files) += 1;
            trashed += child.trashed;
            if (child.isDir) pending.push_back(child.id);
        }
    }
    Account account = drive.account();
    std::cout << "folders " << folders << "\nfiles   " << files << "\ntrashed " << trashed
              << "\nused    " << account.usedSize << " bytes\nquota   "
              << (account.quota ? std::to_string(*account.quota) + " bytes" : "unlimited")
              << "\nfaults  " << drive.faults().size() << "\nrequests";
    std::map<std::string, int> byFn;
    for (auto const& e : drive.requestLog()) byFn[e.fn.empty() ? "(malformed)" : e.fn] += 1;
    if (byFn.empty()) std::cout << " none";
    std::cout << "\n";
    for (auto const& entry : byFn) std::cout << "  " << entry.first << " " << entry.second << "\n";
}

int run(std::vector<std::string> argv) {
    Args args(std::move(argv));
    std::string folder;
    if (args.take("--data")) folder = args.next("data folder");
    if (args.take("--help") || args.take("-h")) {
        std::cout << kUsage;
        return 0;
    }
    if (folder.empty() && std::getenv("DRIVE_EMULATOR_DATA")) {
        folder = std::getenv("DRIVE_EMULATOR_DATA");
    }
    if (folder.empty()) throw Usage{"no data folder: pass --data DIR or set DRIVE_EMULATOR_DATA"};
    std::string command = args.next("command");

    if (command == "init") {
        AccountOptions options;
        while (!args.empty()) {
            if (args.take("--quota")) {
                options.quota = number(args.next("bytes"));
            } else if (args.take("--unlimited")) {
                options.quota.reset();
            } else if (args.take("--email")) {
                options.email = args.next("address");
            } else if (args.take("--user")) {
                options.userName = args.next("name");
            } else {
                throw Usage{"unknown init option: " + args.next("")};
            }
        }
        Drive drive = Drive::init(folder, options);
        std::cout << drive.rootId() << "\n";
        return 0;
    }

    Drive drive = Drive::open(folder);
    auto obj = [&](char const* what) { return resolve(drive, args.next(what)); };
    if (command == "account") {
        args.done();
        Account a = drive.account();
        std::cout << "account  " << a.email << "\nuser     " << a.userName << "\nquota    "
                  << (a.quota ? std::to_string(*a.quota) : "unlimited") << "\nused     "
                  << a.usedSize << "\nroot     " << a.rootId << "\n";
    } else if (command == "quota") {
        std::string value = args.next("bytes or unlimited");
        args.done();
        drive.setQuota(value == "unlimited" ? std::nullopt
                                            : std::optional<std::int64_t>(number(value)));
    } else if (command == "tree") {
        std::string id = resolve(drive, args.nextOr("root"));
        args.done();
        std::cout << drive.stat(id).name << "/  (" << drive.stat(id).id << ")\n";
        printTree(drive, id);
    } else if (command == "ls") {
        bool all = args.take("-a");
        std::string id = resolve(drive, args.nextOr("root"));
        args.done();
        for (auto const& child : drive.children(id, all)) printLine(child);
    } else if (command == "stat") {
        std::string id = obj("object");
        args.done();
        printObject(drive.stat(id));
    } else if (command == "mkdir") {
        std::string parent = obj("parent");
        std::string name = args.next("name");
        args.done();
        std::cout << drive.mkdir(parent, name) << "\n";
    } else if (command == "put") {
        std::string parent = obj("parent");
        std::string name = args.next("name");
        std::string local = args.next("local file");
        args.done();
        std::cout << drive.putFile(parent, name, local) << "\n";
    } else if (command == "get") {
        std::string id = obj("object");
        std::string local = args.next("local file");
        args.done();
        drive.get(id, local);
    } else if (command == "cat") {
        std::string id = obj("object");
        args.done();
        std::cout << drive.content(id);
    } else if (command == "mv") {
        std::string id = obj("object");
        std::string parent = obj("new parent");
        args.done();
        drive.move(id, parent);
    } else if (command == "rename") {
        std::string id = obj("object");
        std::string name = args.next("name");
        args.done();
        drive.rename(id, name);
    } else if (command == "addparent" || command == "rmparent") {
        std::string id = obj("object");
        std::string parent = obj("parent");
        args.done();
        if (command == "addparent") {
            drive.addParent(id, parent);
        } else {
            drive.removeParent(id, parent);
        }
    } else if (command == "dup") {
        std::string id = obj("object");
        args.done();
        std::cout << drive.duplicate(id) << "\n";
    } else if (command == "change") {
        Change change = changeFromName(args.next("change"));
        std::string id = obj("object");
        std::string elsewhere =
            change == Change::Move || change == Change::SecondParent ? obj("folder") : "";
        args.done();
        std::cout << applyChange(drive, change, id, elsewhere) << "\n";
    } else if (command == "recreate") {
        std::string id = obj("object");
        args.done();
        std::cout << drive.recreate(id) << "\n";
    } else if (command == "trash" || command == "untrash") {
        std::string id = obj("object");
        args.done();
        if (command == "trash") {
            drive.trash(id);
        } else {
            drive.untrash(id);
        }
    } else if (command == "rm") {
        std::string id = obj("object");
        args.done();
        drive.remove(id);
    } else if (command == "touch") {
        std::string id = obj("object");
        std::int64_t seconds = number(args.next("seconds"));
        args.done();
        drive.setMtime(id, seconds);
    } else if (command == "settings") {
        settingsCommand(drive, args);
    } else if (command == "fault") {
        std::string sub = args.next("add, list or clear");
        if (sub == "add") {
            std::cout << drive.addFault(parseFault(args)) << "\n";
        } else if (sub == "list") {
            args.done();
            for (auto const& f : drive.faults()) printFault(f);
        } else if (sub == "clear") {
            args.done();
            drive.clearFaults();
        } else {
            throw Usage{"unknown fault command: " + sub};
        }
    } else if (command == "log") {
        logCommand(drive, args);
    } else if (command == "stats") {
        args.done();
        statsCommand(drive);
    } else {
        throw Usage{"unknown command: " + command};
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "-h" || args[0] == "--help") {
        std::cout << kUsage;
        return args.empty() ? 2 : 0;
    }
    try {
        return run(std::move(args));
    } catch (Usage const& u) {
        std::cerr << "drive_emulator_ctl: " << u.message << "\n" << kUsage;
        return 2;
    } catch (Error const& e) {
        std::cerr << "drive_emulator_ctl: " << e.what() << " (" << e.code() << ")\n";
        return 1;
    }
}
