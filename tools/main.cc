// gdrive_host: a stand-in for the backup engine on the command line. It loads
// the plug-in module with dlopen, builds a transfer agent for one destination
// and runs one command through the engine's interface.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "authorize.h"
#include "backup/transfer_agent.h"
#include "commands.h"
#include "destination.h"
#include "failure.h"
#include "interrupt.h"
#include "plugin_log.h"
#include "plugin_module.h"
#include "remote_tree.h"
#include "stderr_filter.h"
#include "worker_process.h"

namespace gdhost {
namespace {

char const kExitCodes[] =
    "Exit codes: 0 ok, 1 error (or differences found by check or dupes), 2 usage, 3 folder not\n"
    "found, 4 file not found, 5 temporary failure (retries spent), 7 fatal (credentials refused,\n"
    "quota exceeded), 130 cancelled.\n"
    "Without a drive agent configured (TAVO_ROOT unset), an embedded emulator under\n"
    "$XDG_DATA_HOME/gdrive_host (else ~/.local/share/gdrive_host) plays the Drive.";

struct Invocation {
    Destination destination;
    CommandArgs args;
    bool verbose = false;
    std::string helpTopic;
    int authorizeSeconds = 300;
    Command const* command = nullptr;
};

// Runs the chosen command against a fresh agent; the exit code.
int runCommand(Invocation& inv) {
    std::string error;
    if (!prepareDestination(inv.destination, error)) return reportProblem(error, kExitError);
    std::unique_ptr<StderrFilter> filter;
    if (!inv.verbose) filter.reset(new StderrFilter);
    PluginModule module;
    if (!module.load(inv.destination.plugin, error)) return reportProblem(error, kExitError);
    showPluginLog(inv.verbose);
    installInterruptHandler();
    TAVO::Backup::Repository repository = makeRepository(inv.destination);
    std::unique_ptr<TAVO::Backup::TransferAgent> agent = module.makeAgent(repository);
    if (!agent) return reportProblem("the plug-in made no transfer agent", kExitError);
    agent->setTargetId(inv.destination.target);
    agent->setTransferOption(TAVO::Backup::Task(inv.destination.target));
    agent->setCancelHook(interrupted);
    if (!agent->isValid()) {
        return reportProblem("destination settings are incomplete (container, refresh token)",
                             kExitUsage);
    }
    inv.args.verbose = inv.verbose;
    Session session{*agent, inv.destination, inv.args, &module};
    std::string subject = inv.command->name;
    for (std::string const& path : inv.args.paths) subject += " " + path;
    beginOperation(subject);
    int rc = kExitOk;
    try {
        rc = inv.command->run(session);
    } catch (BadRemotePath const& e) {
        rc = reportProblem(e.what(), kExitUsage);
    }
    // Keep what the node cache learned, as the engine does at the end of a
    // run; a tree with a few failed files has still learned the rest.
    if (inv.args.action != "drop") agent->flushCache();
    // A command that finished its work before the Ctrl-C has succeeded.
    if (interrupted() && rc != kExitOk) rc = kExitCanceled;
    return rc;
}

// The first word of the command line that no option or argument took, as a
// message naming it; empty when every word was taken. Each command checks its
// own words: a misspelt option or one path too many must never run a
// command that then does something else than the person asked.
std::string strayWord(CLI::App& app) {
    std::vector<CLI::App*> chosen = app.get_subcommands();
    std::string command = chosen.empty() ? "" : chosen.front()->get_name();
    // The tool's own words come first: an option there stood before the command.
    std::vector<std::pair<std::string, bool>> words;
    for (std::string const& word : app.remaining()) words.emplace_back(word, false);
    for (CLI::App* sub : chosen) {
        for (std::string const& word : sub->remaining()) words.emplace_back(word, true);
    }
    for (auto const& [word, commands] : words) {
        if (word == "--") continue;
        bool option = word.size() > 1 && word[0] == '-';
        if (option && !commands) return "no option named " + word;
        if (option) {
            return command + ": no option named " + word + " (see gdrive_host help " + command +
                   ")";
        }
        if (command.empty()) return "no command named " + word;
        return command + ": one argument too many: " + word;
    }
    return "";
}

int parseAndRun(int argc, char** argv) {
    Invocation inv;
    inv.destination.plugin = defaultPluginPath();
    CLI::App app(
        "Stores, fetches and examines backup files in Google Drive through the "
        "storage plug-in, as the backup engine does.",
        "gdrive_host");
    app.footer(kExitCodes);
    app.set_version_flag("--version", "gdrive_host " TOOL_VERSION);
    app.require_subcommand(0, 1);
    // Keeps a first word that names no command, so that the message can name it.
    app.allow_extras();
    addDestinationOptions(app, inv.destination);
    CLI::Option* verbose = app.add_flag("-v,--verbose", inv.verbose,
                                        "show the plug-in's log lines and operation trace");
    app.add_flag("-q,--quiet", inv.args.quiet, "no progress line and no summary")
        ->excludes(verbose);

    CLI::App* help = app.add_subcommand("help", "describe a command");
    help->add_option("COMMAND", inv.helpTopic);
    CLI::App* authorize = app.add_subcommand(
        "authorize",
        "obtain a refresh token for the drive agent's OAuth client in a browser and store it, "
        "with service drive, in the profile");
    authorize->add_option("--timeout", inv.authorizeSeconds, "seconds to wait for the browser")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    for (Command const& command : commandTable()) {
        CLI::App* sub = app.add_subcommand(command.name, command.summary);
        command.define(*sub, inv.args);
        sub->callback([&inv, &command] { inv.command = &command; });
    }
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    std::string stray = strayWord(app);
    if (!stray.empty()) return reportProblem(stray, kExitUsage);
    std::string profile = app.get_option("--profile")->as<std::string>();
    warnUnknownProfileKeys(profile);
    if (inv.destination.target.find('/') != std::string::npos || inv.destination.target.empty()) {
        return reportProblem("--target " + inv.destination.target +
                                 ": a target id names one folder of the container (no \"/\")",
                             kExitUsage);
    }
    if (authorize->parsed()) return runAuthorize(inv.destination, profile, inv.authorizeSeconds);
    if (!inv.command && !help->parsed()) {
        return reportProblem("a command is needed; see gdrive_host --help", kExitUsage);
    }
    if (help->parsed()) {
        if (inv.helpTopic.empty()) {
            std::cout << app.help();
            return kExitOk;
        }
        for (CLI::App* sub : app.get_subcommands({})) {
            if (sub->get_name() == inv.helpTopic) {
                std::cout << sub->help();
                return kExitOk;
            }
        }
        return reportProblem("no command named " + inv.helpTopic, kExitUsage);
    }
    return runCommand(inv);
}

}  // namespace
}  // namespace gdhost

int main(int argc, char** argv) {
    // A worker of a parallel command: started by this tool, never by a person.
    if (argc == 2 && std::string(argv[1]) == gdhost::kWorkerMode) return gdhost::runWorkerProcess();
    try {
        return gdhost::parseAndRun(argc, argv);
    } catch (std::exception const& e) {
        return gdhost::reportProblem(e.what(), gdhost::kExitError);
    }
}
