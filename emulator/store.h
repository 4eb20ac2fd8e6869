// The model of one Drive account in a data folder: metadata in SQLite
// ("drive.db"), contents in "blobs/". The emulator processes and the control
// library each hold their own Store on the same folder; SQLite's locking keeps
// them consistent.
//
// Model operations run inside a transaction that the caller holds (a
// WriteTransaction for anything that changes the account), so that several
// steps and the request log entry commit together. They throw Error with the
// service's code and message when the service would refuse.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "blobs.h"
#include "drive_types.h"
#include "sqlite_db.h"

namespace DriveEmulator {

// What the database records beside the public fields of an object.
struct StoredObject {
    Object object;
    std::int64_t seq = 0;  // creation order; listings and page tokens follow it
    std::string blob;      // contents file in blobs/, empty for folders and empty files
    std::int64_t lag = 0;  // name-filtered listings that will still miss the object
};

// A new version of a file's contents, already written to a pending blob.
struct NewContent {
    std::string blob;  // empty for empty contents
    std::int64_t size = 0;
    std::string md5;
    // The local file's modification time (seconds), which an upload keeps
    // as the file's; 0 stamps the time of the store.
    std::int64_t mtime = 0;
};

struct ListPage {
    std::vector<Object> objects;
    std::string nextPageToken;  // empty on the last page
};

class Store {
  public:
    // The database file inside a data folder.
    static char const* const kDatabaseName;

    // Erases whatever `folder` holds (database and blobs) and creates a fresh
    // account there. Error(500) on a file system or database failure.
    static void create(std::string const& folder, AccountOptions const& options);
    static bool hasAccount(std::string const& folder);

    // Opens the account in `folder`; Error(500) when there is none.
    explicit Store(std::string const& folder);

    Db& db() { return _db; }
    Blobs& blobs() { return _blobs; }
    std::string const& folder() const { return _folder; }
    std::string const& rootId() const { return _root_id; }
    // `id` with the alias "root" replaced by the root's real id.
    std::string resolve(std::string const& id) const;

    // ---- Reading (any transaction) ----
    std::optional<StoredObject> find(std::string const& id);
    // The object; Error(404, "File not found: <id>.") when unknown.
    StoredObject get(std::string const& id);
    // The object, which must be a folder: 404 when unknown, 400 for a file.
    StoredObject getFolder(std::string const& id);
    std::vector<Object> children(std::string const& parentId, bool includeTrashed);
    std::vector<Object> lookup(std::string const& parentId, std::string const& name,
                               bool includeTrashed);
    Account account();
    std::int64_t usedSize();
    Settings settings();

    // One page of the objects matching a search expression. Hides objects
    // that lag behind name-filtered listings (and counts the listing against
    // them, so it writes: hold a WriteTransaction). Error(400, "Invalid Value")
    // for a bad expression or page token. With `repeatLast`, a first page
    // that holds anything gets a next page token whose page starts with the
    // first page's last object again.
    ListPage list(std::string const& query, std::string const& pageToken, Settings const& settings,
                  bool repeatLast = false);

    // ---- Changing (inside a WriteTransaction) ----
    // `id` empty: a fresh one; otherwise the caller's (as Drive takes ids
    // from files.generateIds), Error(409) when an object already has it.
    Object createFolder(std::string const& parentId, std::string const& name, std::int64_t lag,
                        std::string const& id = "");
    // Creates a file from published content; 404/400 for the parent, 403 for
    // the quota, 409 as createFolder.
    Object createFile(std::string const& parentId, std::string const& name,
                      NewContent const& content, std::int64_t lag, std::string const& id = "");
    // Replaces a file's contents; returns the blob the old version used (to be
    // discarded after the commit). 404, 400 for a folder, 403 for the quota.
    std::string updateFile(std::string const& id, NewContent const& content);
    // Deletes `id` and the descendants left without a parent; returns the
    // blobs to discard after the commit.
    std::vector<std::string> remove(std::string const& id);
    void rename(std::string const& id, std::string const& name);
    void setParents(std::string const& id, std::vector<std::string> const& parentIds);
    void setTrashed(std::string const& id, bool trashed);
    void setMtime(std::string const& id, std::int64_t mtime);
    void setQuota(std::optional<std::int64_t> quota);
    void setSettings(Settings const& settings);

    // Throws the quota refusal when growing the used size by `delta` would
    // exceed the quota.
    void checkQuota(std::int64_t delta);

  private:
    std::string claimId(std::string const& id);
    std::string metaValue(char const* key);
    void insertObject(StoredObject const& stored, std::string const& parentId);
    std::vector<std::string> parentsOf(std::string const& id);
    std::vector<std::string> subtree(std::string const& id);
    void recomputeTrash(std::string const& id);
    Object load(Query& row);

    std::string _folder;
    Db _db;
    Blobs _blobs;
    std::string _root_id;
};

}  // namespace DriveEmulator
