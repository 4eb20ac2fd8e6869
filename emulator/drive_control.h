// Out-of-band control of an emulated Drive account: what tests and people use
// to shape the cloud side while emulator processes serve the plug-in. Every
// call is one transaction on the data folder, so it is safe while emulator
// processes run; changes made here are not requests and are not logged.
//
// Failures throw DriveEmulator::Error with the code the emulator would answer
// with (404 for an unknown id, 400 for a bad argument, 403 for the quota, 500
// for a broken data folder); a failed call changes nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "drive_types.h"

namespace DriveEmulator {

class Store;

// An object and one place where it is.
struct Placed {
    std::string path;
    Object object;
};

class Drive {
  public:
    // Creates a fresh account in `folder` (made if missing), erasing any
    // account, contents, faults and log held there before. Do not call while
    // emulator processes use the folder.
    static Drive init(std::string const& folder, AccountOptions const& options = {});
    // Opens the account in `folder`; throws Error(500) when it holds none.
    static Drive open(std::string const& folder);
    // True when `folder` holds an account.
    static bool hasAccount(std::string const& folder);

    Drive(Drive&&) noexcept;
    Drive& operator=(Drive&&) noexcept;
    ~Drive();

    std::string const& folder() const;

    // ---- Account ----
    Account account();
    // Changes the quota (absent: unlimited). Existing contents are kept even above it.
    void setQuota(std::optional<std::int64_t> quota);
    // The root folder's real id; the alias "root" is accepted wherever an id is.
    std::string rootId();

    // ---- Objects ----
    // The object `id`; throws Error(404) when unknown.
    Object stat(std::string const& id);
    // True when `id` names an object.
    bool exists(std::string const& id);
    // The objects whose parents include `parentId`, in creation order; trashed
    // ones only when `includeTrashed`. Error(404) when `parentId` is unknown.
    std::vector<Object> children(std::string const& parentId, bool includeTrashed = false);
    // The children of `parentId` named `name` (compared case-insensitively).
    std::vector<Object> lookup(std::string const& parentId, std::string const& name,
                               bool includeTrashed = false);
    // Every object below `id` with its path from there ("a/b"), parents
    // before children, each folder's children in creation order; trashed ones
    // only when `includeTrashed`. An object with several parents below `id` is
    // listed at each place. Error(404) when `id` is unknown.
    std::vector<Placed> walk(std::string const& id, bool includeTrashed = false);
    // The objects at an absolute path such as "/a/b" ("/" the root), names
    // compared byte for byte, every object of one name followed; empty when
    // nothing is there.
    std::vector<Object> at(std::string const& path);
    // The id at an absolute path such as "/a/b" ("/" is the root); throws
    // Error(404) when a component is missing and Error(400) when one is ambiguous.
    std::string idByPath(std::string const& path);

    // Creates a folder and returns its id; the parent must be a folder (404/400 otherwise).
    std::string mkdir(std::string const& parentId, std::string const& name);
    // Creates a file holding `content` and returns its id.
    std::string put(std::string const& parentId, std::string const& name,
                    std::string const& content);
    // Creates a file with the contents of the local file `localPath` (streamed).
    std::string putFile(std::string const& parentId, std::string const& name,
                        std::string const& localPath);
    // Replaces a file's contents, keeping its id; size, md5 and mtime change.
    void update(std::string const& id, std::string const& content);
    // A file's whole contents; throws Error(400) for a folder.
    std::string content(std::string const& id);
    // Copies a file's contents to the local file `localPath` (created or truncated).
    void get(std::string const& id, std::string const& localPath);
    // Makes another object of the same name, kind, contents and parents as `id`
    // (a folder is copied empty); returns its id.
    std::string duplicate(std::string const& id);
    // Replaces `id` and everything below it by copies under new ids (same
    // names, kinds, contents, parents and times), as a client that deletes an
    // object and uploads it again does; trashed objects below are not copied.
    // Returns the new id of `id`. The root cannot be replaced (403).
    std::string recreate(std::string const& id);

    void rename(std::string const& id, std::string const& name);
    // Replaces all parents of `id` with `newParentId`.
    void move(std::string const& id, std::string const& newParentId);
    // Adds `parentId` to the parents of `id` (a second home, as Drive allows).
    void addParent(std::string const& id, std::string const& parentId);
    // Removes one parent; throws Error(400) if it is the object's last one.
    void removeParent(std::string const& id, std::string const& parentId);
    // Puts `id` and everything below it in the trash / takes it out again.
    void trash(std::string const& id);
    void untrash(std::string const& id);
    // Deletes `id` for good, with the descendants that have no other parent
    // outside what is deleted. The root cannot be removed (403).
    void remove(std::string const& id);
    void setMtime(std::string const& id, std::int64_t mtime);

    // ---- Behaviour ----
    Settings settings();
    void setSettings(Settings const& settings);

    // ---- Faults ----
    // Stores a rule (persisted: the next emulator process sees it too); returns its id.
    std::int64_t addFault(Fault const& fault);
    // Every rule, oldest first, with its counters.
    std::vector<Fault> faults();
    void clearFaults();

    // ---- Request log ----
    // The requests served since the log was last cleared, oldest first.
    std::vector<LogEntry> requestLog();
    // How many logged requests had this "fn" ("*": all).
    std::int64_t countRequests(std::string const& fn = "*");
    void clearRequestLog();

  private:
    explicit Drive(std::unique_ptr<Store> store);
    std::unique_ptr<Store> _store;
};

// The path of the drive_emulator executable this library was built with.
std::string emulatorBinary();

// The file the plug-in starts as the drive agent, and its script argument.
extern char const* const kAgentProgram;  // "/usr/bin/python"
extern char const* const kAgentScript;   // "/var/packages/.../drive_agent.py"

// Lays out `root` so that running "$root/usr/bin/python" starts the emulator
// on the account in `dataFolder`: the symlink, a placeholder for the agent
// script, and "usr/bin/drive_emulator.conf" naming the folder. Creates the
// account (default options) when `dataFolder` holds none. Throws Error(500)
// on a file system failure.
void makeAgentRoot(std::string const& root, std::string const& dataFolder);

}  // namespace DriveEmulator
