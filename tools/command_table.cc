#include <CLI/CLI.hpp>

#include "commands.h"
#include "destination_lock.h"
#include "exclude_rules.h"
#include "failure.h"

namespace gdhost {

namespace {

// One word each: a word more is left over, and refused by name.
CLI::Option* onePath(char const* name, char const* what, CLI::App& c, CommandArgs& a) {
    return c
        .add_option_function<std::string>(
            name, [&a](std::string const& path) { a.paths.push_back(path); }, what)
        ->type_name("");
}

void remoteOptional(CLI::App& c, CommandArgs& a) {
    onePath("PATH", "folder of the target (default: its top)", c, a);
}

void remoteRequired(CLI::App& c, CommandArgs& a) {
    onePath("PATH", "path in the target", c, a)->required();
}

void twoPaths(char const* from, char const* to, CLI::App& c, CommandArgs& a) {
    for (char const* name : {from, to}) onePath(name, "", c, a)->required();
}

void transfers(CLI::App& c, CommandArgs& a) {
    c.add_option("--transfers", a.transfers,
                 "worker processes, each with its own agent, sharing the work")
        ->check(CLI::Validator(
            [](std::string& value) -> std::string {
                size_t used = 0;
                int number = 0;
                try {
                    number = std::stoi(value, &used);
                } catch (std::exception const&) {
                    used = 0;
                }
                bool ok = used == value.size() && number >= 1 && number <= 64;
                return ok ? "" : "a number of workers from 1 to 64, not " + value;
            },
            "INT in [1 - 64]"))
        ->capture_default_str();
}

void checksum(CLI::App& c, CommandArgs& a) {
    c.add_flag("--checksum", a.checksum,
               "compare every file by MD5 (reads them all), not by the stored index");
}

// --exclude and --exclude-from, each repeatable and one word an occurrence.
void filters(CLI::App& c, CommandArgs& a) {
    c.add_option("--exclude", a.excludes,
                 "leave out what matches this glob (* within a name, ** across folders, a "
                 "leading / anchors at the top, a trailing / matches folders only)")
        ->allow_extra_args(false)
        ->type_name("PATTERN")
        ->check(CLI::Validator(
            [](std::string& pattern) {
                std::string error;
                return ExcludeRules().add(pattern, error) ? "" : error;
            },
            ""));
    c.add_option("--exclude-from", a.excludeFrom,
                 "read exclude patterns from FILE, one a line (# starts a comment)")
        ->allow_extra_args(false)
        ->type_name("FILE")
        ->check(CLI::ExistingFile);
}

void json(CLI::App& c, CommandArgs& a) {
    c.add_flag("--json", a.json, "one JSON document on stdout");
}

// Runs `Run` once the destination's lock is held: the commands that change
// the destination (or its node cache) never run two at a time on it.
template <int (*Run)(Session&)>
int changing(Session& s) {
    std::string what = "gdrive_host";
    for (Command const& command : commandTable()) {
        if (command.run == &changing<Run>) what += std::string(" ") + command.name;
    }
    if (!s.args.action.empty()) what += " " + s.args.action;
    for (std::string const& path : s.args.paths) what += " " + path;
    int held = holdDestination(s.destination, what);
    return held == kExitOk ? Run(s) : held;
}

}  // namespace

std::vector<Command> const& commandTable() {
    static std::vector<Command> const table = {
        {"init", "create the container and the target folder", [](CLI::App&, CommandArgs&) {},
         changing<runInit>},
        {"ls", "list a folder (-R: the whole tree, -l: long form with a header)",
         [](CLI::App& c, CommandArgs& a) {
             remoteOptional(c, a);
             c.add_flag("-R,--recursive", a.recursive, "list the folders below too");
             c.add_flag("-l,--long", a.longForm, "type, size, time and MD5 of each entry");
             json(c, a);
         },
         runLs},
        {"tree", "draw a folder tree", remoteOptional, runTree},
        {"stat", "type, size, time and MD5 of one object",
         [](CLI::App& c, CommandArgs& a) {
             remoteRequired(c, a);
             json(c, a);
         },
         runStat},
        {"size", "number of files and folders and bytes below a folder",
         [](CLI::App& c, CommandArgs& a) {
             remoteOptional(c, a);
             json(c, a);
         },
         runSize},
        {"about", "account and quota", json, runAbout},
        {"mkdir", "create a folder (-p: with its parents)",
         [](CLI::App& c, CommandArgs& a) {
             remoteRequired(c, a);
             c.add_flag("-p,--parents", a.parents, "create missing parents");
         },
         changing<runMkdir>},
        {"put", "send one local file (missing remote folders are created)",
         [](CLI::App& c, CommandArgs& a) { twoPaths("LOCAL", "REMOTE", c, a); }, changing<runPut>},
        {"get", "fetch one file",
         [](CLI::App& c, CommandArgs& a) { twoPaths("REMOTE", "LOCAL", c, a); }, runGet},
        {"copy",
         "send a local tree; unchanged files (as stored before, else by size and MD5) are "
         "skipped; never deletes (a file deleted locally stays on the remote: use sync)",
         [](CLI::App& c, CommandArgs& a) {
             twoPaths("LOCALDIR", "REMOTEDIR", c, a);
             c.add_flag("-n,--dry-run", a.dryRun, "say what would be sent, send nothing");
             checksum(c, a);
             filters(c, a);
             transfers(c, a);
         },
         changing<runCopy>},
        {"sync",
         "make the remote tree match a local one: copy, then delete remote files and folders the "
         "local tree no longer has (nothing is deleted when a local folder cannot be read)",
         [](CLI::App& c, CommandArgs& a) {
             twoPaths("LOCALDIR", "REMOTEDIR", c, a);
             c.add_flag("-n,--dry-run", a.dryRun, "say what would be sent and deleted, do nothing");
             checksum(c, a);
             filters(c, a);
             c.add_flag("--delete-excluded", a.deleteExcluded,
                        "delete remote objects the filters exclude too");
             transfers(c, a);
         },
         changing<runSync>},
        {"restore",
         "fetch a remote tree into a local folder; local files that already hold the remote's "
         "content are left alone",
         [](CLI::App& c, CommandArgs& a) {
             twoPaths("REMOTEDIR", "LOCALDIR", c, a);
             c.add_flag("--force", a.force, "fetch every file, even those already there");
             filters(c, a);
             transfers(c, a);
         },
         runRestore},
        {"check", "compare a local tree with a remote one by MD5 (exit 1 when they differ)",
         [](CLI::App& c, CommandArgs& a) {
             twoPaths("LOCALDIR", "REMOTEDIR", c, a);
             json(c, a);
             filters(c, a);
             transfers(c, a);
         },
         runCheck},
        {"rm", "remove one file", remoteRequired, changing<runRm>},
        {"purge", "remove a folder and everything below it",
         [](CLI::App& c, CommandArgs& a) {
             remoteRequired(c, a);
             c.add_flag("-f,--force", a.force, "do not ask (needed when stdin is not a terminal)");
         },
         changing<runPurge>},
        {"containers", "list the top-level folders of the Drive", [](CLI::App&, CommandArgs&) {},
         runContainers},
        {"cache", "node cache: check (against the service), flush, drop, show",
         [](CLI::App& c, CommandArgs& a) {
             c.add_option("ACTION", a.action)
                 ->required()
                 ->check(CLI::IsMember({"check", "flush", "drop", "show"}));
         },
         changing<runCache>},
        {"dupes", "list names that one folder holds twice (exit 1 when there are any)",
         remoteOptional, runDupes},
    };
    return table;
}

}  // namespace gdhost
