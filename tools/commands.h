// The tool's commands: one table gives each its name, its one-line summary,
// its arguments and the function that runs it.
#pragma once

#include <string>
#include <vector>

#include "backup/transfer_agent.h"
#include "destination.h"

namespace CLI {
class App;
}

namespace gdhost {

class PluginModule;

// Everything any command can be given on the command line.
struct CommandArgs {
    std::vector<std::string> paths;
    std::string action;  // cache: check, flush, drop, show
    bool recursive = false;
    bool longForm = false;
    bool json = false;
    bool parents = false;
    bool dryRun = false;
    bool force = false;
    bool quiet = false;
    bool verbose = false;
    bool checksum = false;                 // copy, sync: compare by MD5, never by the stored index
    bool deleteExcluded = false;           // sync: delete what the filters exclude too
    std::vector<std::string> excludes;     // --exclude patterns
    std::vector<std::string> excludeFrom;  // --exclude-from files
    int transfers = 4;                     // worker processes for copy, sync, restore and check
};

// What a running command works with.
struct Session {
    TAVO::Backup::TransferAgent& agent;
    Destination const& destination;
    CommandArgs const& args;
    PluginModule const* module = nullptr;  // where worker processes make their agents
    std::string path(size_t i) const { return i < args.paths.size() ? args.paths[i] : ""; }
};

struct Command {
    char const* name;
    char const* summary;
    // Declares the command's arguments on its subcommand.
    void (*define)(CLI::App& command, CommandArgs& args);
    // Runs the command; returns the exit code.
    int (*run)(Session& session);
};

// Every command, in the order --help lists them.
std::vector<Command> const& commandTable();

// The commands, by area (defined in commands_*.cc).
int runLs(Session& s);
int runTree(Session& s);
int runStat(Session& s);
int runSize(Session& s);
int runAbout(Session& s);
int runContainers(Session& s);
int runDupes(Session& s);
int runPut(Session& s);
int runGet(Session& s);
int runCopy(Session& s);
int runSync(Session& s);
int runRestore(Session& s);
int runCheck(Session& s);
int runInit(Session& s);
int runMkdir(Session& s);
int runRm(Session& s);
int runPurge(Session& s);
int runCache(Session& s);

}  // namespace gdhost
