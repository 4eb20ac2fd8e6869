#include "store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <set>

#include "ids.h"
#include "name_fold.h"
#include "query.h"

namespace DriveEmulator {

char const* const Store::kDatabaseName = "drive.db";

namespace {

char const kSchema[] = R"sql(
CREATE TABLE meta(key TEXT PRIMARY KEY, value);
CREATE TABLE objects(
  seq INTEGER PRIMARY KEY AUTOINCREMENT,
  id TEXT NOT NULL UNIQUE,
  name TEXT NOT NULL,
  folded TEXT NOT NULL,
  is_dir INTEGER NOT NULL,
  size INTEGER NOT NULL DEFAULT 0,
  mtime INTEGER NOT NULL,
  md5 TEXT NOT NULL DEFAULT '',
  trashed INTEGER NOT NULL DEFAULT 0,
  explicitly_trashed INTEGER NOT NULL DEFAULT 0,
  blob TEXT NOT NULL DEFAULT '',
  lag INTEGER NOT NULL DEFAULT 0);
CREATE TABLE parents(parent TEXT NOT NULL, child TEXT NOT NULL, PRIMARY KEY(parent, child))
  WITHOUT ROWID;
CREATE INDEX parents_by_child ON parents(child, parent);
CREATE TABLE settings(key TEXT PRIMARY KEY, value);
CREATE TABLE faults(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  fn TEXT NOT NULL, kind TEXT NOT NULL, nth INTEGER NOT NULL, remaining INTEGER NOT NULL,
  code INTEGER NOT NULL, text TEXT NOT NULL, number INTEGER NOT NULL, fractions TEXT NOT NULL,
  seen INTEGER NOT NULL DEFAULT 0, fired INTEGER NOT NULL DEFAULT 0);
CREATE TABLE log(
  seq INTEGER PRIMARY KEY, time REAL NOT NULL, pid INTEGER NOT NULL,
  fn TEXT NOT NULL, args TEXT NOT NULL, success INTEGER NOT NULL, code INTEGER NOT NULL,
  message TEXT NOT NULL);
)sql";

char const kObjectColumns[] =
    "o.seq, o.id, o.name, o.is_dir, o.size, o.mtime, o.md5, o.trashed, o.blob, o.lag";

std::string databasePath(std::string const& folder) { return folder + "/" + Store::kDatabaseName; }

bool fileExists(std::string const& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::string existingDatabase(std::string const& folder) {
    std::string path = databasePath(folder);
    if (!fileExists(path)) {
        throw Error(500, "no emulated account in " + folder + " (create one with init)");
    }
    return path;
}

[[noreturn]] void notFound(std::string const& id) {
    throw Error(404, "File not found: " + id + ".");
}

void checkName(std::string const& name) {
    if (name.empty()) throw Error(400, "A name is required.");
}

std::int64_t now() { return static_cast<std::int64_t>(std::time(nullptr)); }

// Page tokens carry the position (the last sequence number returned) and a
// hash of what was asked, so a token is refused for another query.
std::uint64_t queryHash(std::string const& query, bool listTrashed) {
    std::uint64_t h = 1469598103934665603ull;
    for (unsigned char c : query) h = (h ^ c) * 1099511628211ull;
    return (h ^ (listTrashed ? 1u : 2u)) * 1099511628211ull;
}

std::string makePageToken(std::uint64_t hash, std::int64_t seq) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%016llx%llx", static_cast<unsigned long long>(hash),
                  static_cast<unsigned long long>(seq));
    return buffer;
}

std::int64_t readPageToken(std::string const& token, std::uint64_t hash) {
    auto invalid = [] { return Error(400, Messages::kInvalidValue); };
    if (token.size() <= 16 || token.size() > 32) throw invalid();
    for (char c : token) {
        if (!std::isxdigit(static_cast<unsigned char>(c)) || std::isupper(c)) throw invalid();
    }
    if (std::stoull(token.substr(0, 16), nullptr, 16) != hash) throw invalid();
    return static_cast<std::int64_t>(std::stoull(token.substr(16), nullptr, 16));
}

void eraseDatabase(std::string const& folder) {
    for (char const* suffix : {"", "-wal", "-shm", "-journal"}) {
        std::string path = databasePath(folder) + suffix;
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            throw Error(500, "cannot remove " + path + ": " + std::strerror(errno));
        }
    }
}

}  // namespace

void Store::create(std::string const& folder, AccountOptions const& options) {
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        throw Error(500, "cannot create " + folder + ": " + std::strerror(errno));
    }
    Blobs(folder).wipe();
    eraseDatabase(folder);
    Db db(databasePath(folder));
    WriteTransaction txn(db);
    db.exec(kSchema);
    std::string root = newRootId();
    auto setMeta = [&](char const* key, std::string const& value) {
        db.query("INSERT INTO meta(key, value) VALUES(?, ?)").bind(1, key).bind(2, value).run();
    };
    setMeta("root_id", root);
    setMeta("email", options.email);
    setMeta("user_name", options.userName);
    if (options.quota) {
        db.query("INSERT INTO meta(key, value) VALUES('quota', ?)").bind(1, *options.quota).run();
    } else {
        db.query("INSERT INTO meta(key, value) VALUES('quota', NULL)").run();
    }
    db.query("INSERT INTO objects(id, name, folded, is_dir, mtime) VALUES(?, ?, ?, 1, ?)")
        .bind(1, root)
        .bind(2, "My Drive")
        .bind(3, foldName("My Drive"))
        .bind(4, now())
        .run();
    txn.commit();
}

bool Store::hasAccount(std::string const& folder) {
    if (!fileExists(databasePath(folder))) return false;
    try {
        Store store(folder);
        return true;
    } catch (Error const&) {
        return false;
    }
}

Store::Store(std::string const& folder)
    : _folder(folder), _db(existingDatabase(folder)), _blobs(folder) {
    auto q = _db.query("SELECT value FROM meta WHERE key = 'root_id'");
    if (!q.step()) throw Error(500, "no emulated account in " + folder + " (create one with init)");
    _root_id = q.text(0);
}

std::string Store::resolve(std::string const& id) const { return id == "root" ? _root_id : id; }

std::string Store::metaValue(char const* key) {
    auto q = _db.query("SELECT value FROM meta WHERE key = ?");
    q.bind(1, key);
    return q.step() ? q.text(0) : std::string();
}

std::vector<std::string> Store::parentsOf(std::string const& id) {
    std::vector<std::string> parents;
    auto q = _db.query("SELECT parent FROM parents WHERE child = ?");
    q.bind(1, id);
    while (q.step()) parents.push_back(q.text(0));
    return parents;
}

Object Store::load(Query& row) {
    Object o;
    o.id = row.text(1);
    o.name = row.text(2);
    o.isDir = row.int64(3) != 0;
    o.size = static_cast<std::uint64_t>(row.int64(4));
    o.mtime = row.int64(5);
    o.md5 = row.text(6);
    o.trashed = row.int64(7) != 0;
    o.parents = parentsOf(o.id);
    return o;
}

std::optional<StoredObject> Store::find(std::string const& id) {
    auto q = _db.query(std::string("SELECT ") + kObjectColumns + " FROM objects o WHERE o.id = ?");
    q.bind(1, resolve(id));
    if (!q.step()) return std::nullopt;
    StoredObject stored;
    stored.object = load(q);
    stored.seq = q.int64(0);
    stored.blob = q.text(8);
    stored.lag = q.int64(9);
    return stored;
}

StoredObject Store::get(std::string const& id) {
    auto found = find(id);
    if (!found) notFound(id);
    return *found;
}

StoredObject Store::getFolder(std::string const& id) {
    StoredObject folder = get(id);
    if (!folder.object.isDir) throw Error(400, "The specified parent is not a folder.");
    return folder;
}

std::vector<Object> Store::children(std::string const& parentId, bool includeTrashed) {
    std::vector<Object> result;
    auto q = _db.query(std::string("SELECT ") + kObjectColumns +
                       " FROM parents p JOIN objects o ON o.id = p.child"
                       " WHERE p.parent = ? AND (? OR o.trashed = 0) ORDER BY o.seq");
    q.bind(1, resolve(parentId)).bind(2, std::int64_t(includeTrashed));
    while (q.step()) result.push_back(load(q));
    return result;
}

std::vector<Object> Store::lookup(std::string const& parentId, std::string const& name,
                                  bool includeTrashed) {
    std::vector<Object> result;
    auto q = _db.query(std::string("SELECT ") + kObjectColumns +
                       " FROM parents p JOIN objects o ON o.id = p.child"
                       " WHERE p.parent = ? AND o.folded = ? AND (? OR o.trashed = 0)"
                       " ORDER BY o.seq");
    q.bind(1, resolve(parentId)).bind(2, foldName(name)).bind(3, std::int64_t(includeTrashed));
    while (q.step()) result.push_back(load(q));
    return result;
}

std::int64_t Store::usedSize() {
    auto q = _db.query("SELECT COALESCE(SUM(size), 0) FROM objects WHERE is_dir = 0");
    q.step();
    return q.int64(0);
}

Account Store::account() {
    Account account;
    account.email = metaValue("email");
    account.userName = metaValue("user_name");
    auto q = _db.query("SELECT value FROM meta WHERE key = 'quota'");
    if (q.step() && !q.isNull(0)) account.quota = q.int64(0);
    account.usedSize = usedSize();
    account.rootId = _root_id;
    return account;
}

void Store::checkQuota(std::int64_t delta) {
    auto q = _db.query("SELECT value FROM meta WHERE key = 'quota'");
    if (!q.step() || q.isNull(0)) return;
    std::int64_t quota = q.int64(0);
    if (delta > 0 && usedSize() + delta > quota) throw Error(403, Messages::kQuotaExceeded);
}

Settings Store::settings() {
    Settings settings;
    auto q = _db.query("SELECT key, value FROM settings");
    while (q.step()) {
        std::string key = q.text(0);
        if (key == "page_size") settings.pageSize = static_cast<int>(q.int64(1));
        if (key == "list_trashed") settings.listTrashed = q.int64(1) != 0;
        if (key == "progress_bytes") settings.progressBytes = q.int64(1);
        if (key == "fsync") settings.fsync = q.int64(1) != 0;
        if (key == "log_rows") settings.logRows = q.int64(1);
    }
    return settings;
}

void Store::setSettings(Settings const& settings) {
    if (settings.pageSize < 1) throw Error(400, "The page size must be at least 1.");
    if (settings.logRows < 1) throw Error(400, "The request log must keep at least 1 row.");
    auto set = [&](char const* key, std::int64_t value) {
        _db.query("INSERT OR REPLACE INTO settings(key, value) VALUES(?, ?)")
            .bind(1, key)
            .bind(2, value)
            .run();
    };
    set("page_size", settings.pageSize);
    set("list_trashed", settings.listTrashed);
    set("progress_bytes", settings.progressBytes);
    set("fsync", settings.fsync);
    set("log_rows", settings.logRows);
}

void Store::setQuota(std::optional<std::int64_t> quota) {
    auto q = _db.query("UPDATE meta SET value = ? WHERE key = 'quota'");
    if (quota) {
        q.bind(1, *quota);
    } else {
        q.bindNull(1);
    }
    q.run();
}

ListPage Store::list(std::string const& query, std::string const& pageToken,
                     Settings const& settings, bool repeatLast) {
    ParsedQuery parsed = parseQuery(query);
    std::uint64_t hash = queryHash(query, settings.listTrashed);
    std::int64_t after = pageToken.empty() ? 0 : readPageToken(pageToken, hash);

    std::vector<std::string> params;
    std::string condition = queryToSql(*parsed.root, params, _root_id);
    std::string sql = std::string("SELECT ") + kObjectColumns;
    if (!parsed.requiredParent.empty()) {
        // Read the one folder through the parents index instead of scanning.
        sql += " FROM parents p JOIN objects o ON o.id = p.child WHERE p.parent = ? AND ";
        params.insert(params.begin(), resolve(parsed.requiredParent));
    } else {
        sql += " FROM objects o WHERE ";
    }
    sql += condition + " AND o.seq > ?";
    if (!settings.listTrashed) sql += " AND o.trashed = 0";
    sql += " ORDER BY o.seq";

    ListPage page;
    std::vector<std::int64_t> missed;
    std::int64_t beforeLast = after;
    {
        auto q = _db.query(sql);
        int index = 1;
        for (auto const& param : params) q.bind(index++, param);
        q.bind(index, after);
        std::int64_t last = after;
        while (q.step()) {
            if (parsed.filtersByName && q.int64(9) > 0) {
                missed.push_back(q.int64(0));
                continue;
            }
            if (page.objects.size() == static_cast<size_t>(settings.pageSize)) {
                page.nextPageToken = makePageToken(hash, last);
                break;
            }
            page.objects.push_back(load(q));
            beforeLast = last;
            last = q.int64(0);
        }
    }
    // Only first pages, so that a rule firing on every listing still ends.
    if (repeatLast && pageToken.empty() && !page.objects.empty()) {
        page.nextPageToken = makePageToken(hash, beforeLast);
    }
    for (std::int64_t seq : missed) {
        _db.query("UPDATE objects SET lag = lag - 1 WHERE seq = ?").bind(1, seq).run();
    }
    return page;
}

void Store::insertObject(StoredObject const& stored, std::string const& parentId) {
    Object const& o = stored.object;
    _db.query(
           "INSERT INTO objects(id, name, folded, is_dir, size, mtime, md5, trashed, blob, lag)"
           " VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(1, o.id)
        .bind(2, o.name)
        .bind(3, foldName(o.name))
        .bind(4, std::int64_t(o.isDir))
        .bind(5, static_cast<std::int64_t>(o.size))
        .bind(6, o.mtime)
        .bind(7, o.md5)
        .bind(8, std::int64_t(o.trashed))
        .bind(9, stored.blob)
        .bind(10, stored.lag)
        .run();
    _db.query("INSERT INTO parents(parent, child) VALUES(?, ?)")
        .bind(1, parentId)
        .bind(2, o.id)
        .run();
}

std::string Store::claimId(std::string const& id) {
    if (id.empty()) return newObjectId();
    if (find(id)) throw Error(409, "A file already exists with the provided ID.");
    return id;
}

Object Store::createFolder(std::string const& parentId, std::string const& name, std::int64_t lag,
                           std::string const& id) {
    checkName(name);
    StoredObject parent = getFolder(parentId);
    StoredObject stored;
    stored.object.id = claimId(id);
    stored.object.name = name;
    stored.object.parents = {parent.object.id};
    stored.object.isDir = true;
    stored.object.mtime = now();
    stored.object.trashed =
        parent.object.trashed;  // a folder in the trash takes its new child along
    stored.lag = lag;
    insertObject(stored, parent.object.id);
    return stored.object;
}

Object Store::createFile(std::string const& parentId, std::string const& name,
                         NewContent const& content, std::int64_t lag, std::string const& id) {
    checkName(name);
    StoredObject parent = getFolder(parentId);
    checkQuota(content.size);
    StoredObject stored;
    stored.object.id = claimId(id);
    stored.object.name = name;
    stored.object.parents = {parent.object.id};
    stored.object.size = static_cast<std::uint64_t>(content.size);
    stored.object.mtime = content.mtime ? content.mtime : now();
    stored.object.md5 = content.md5;
    stored.object.trashed = parent.object.trashed;
    stored.blob = content.blob;
    stored.lag = lag;
    insertObject(stored, parent.object.id);
    return stored.object;
}

std::string Store::updateFile(std::string const& id, NewContent const& content) {
    StoredObject stored = get(id);
    if (stored.object.isDir) throw Error(400, "A folder has no content to update.");
    checkQuota(content.size - static_cast<std::int64_t>(stored.object.size));
    _db.query("UPDATE objects SET size = ?, md5 = ?, mtime = ?, blob = ? WHERE id = ?")
        .bind(1, content.size)
        .bind(2, content.md5)
        .bind(3, content.mtime ? content.mtime : now())
        .bind(4, content.blob)
        .bind(5, stored.object.id)
        .run();
    return stored.blob;
}

std::vector<std::string> Store::subtree(std::string const& id) {
    std::vector<std::string> ids;
    auto q = _db.query(
        "WITH RECURSIVE sub(id) AS (SELECT ? UNION SELECT p.child FROM parents p JOIN sub ON "
        "p.parent = sub.id) SELECT id FROM sub");
    q.bind(1, id);
    while (q.step()) ids.push_back(q.text(0));
    return ids;
}

std::vector<std::string> Store::remove(std::string const& id) {
    StoredObject target = get(id);
    if (target.object.id == _root_id) {
        throw Error(403, "The user does not have sufficient permissions for this file.");
    }
    // An object below goes only when every one of its parents goes too;
    // repeat until nothing more joins, since parents can be reached late.
    std::vector<std::string> below = subtree(target.object.id);
    std::set<std::string> doomed = {target.object.id};
    for (bool grew = true; grew;) {
        grew = false;
        for (auto const& candidate : below) {
            if (doomed.count(candidate)) continue;
            auto parents = parentsOf(candidate);
            if (std::all_of(parents.begin(), parents.end(),
                            [&](std::string const& p) { return doomed.count(p) > 0; })) {
                doomed.insert(candidate);
                grew = true;
            }
        }
    }
    std::vector<std::string> blobs;
    for (auto const& victim : doomed) {
        auto q = _db.query("SELECT blob FROM objects WHERE id = ?");
        q.bind(1, victim);
        if (q.step() && !q.text(0).empty()) blobs.push_back(q.text(0));
    }
    std::vector<std::string> survivors;
    for (auto const& victim : doomed) {
        _db.query("DELETE FROM parents WHERE child = ?").bind(1, victim).run();
        {
            auto q = _db.query("SELECT child FROM parents WHERE parent = ?");
            q.bind(1, victim);
            while (q.step()) survivors.push_back(q.text(0));
        }
        _db.query("DELETE FROM parents WHERE parent = ?").bind(1, victim).run();
        _db.query("DELETE FROM objects WHERE id = ?").bind(1, victim).run();
    }
    // A survivor that lay in a deleted trashed folder leaves the trash with it.
    for (auto const& survivor : survivors) recomputeTrash(survivor);
    return blobs;
}

void Store::rename(std::string const& id, std::string const& name) {
    checkName(name);
    StoredObject stored = get(id);
    if (stored.object.id == _root_id) throw Error(403, "The root folder cannot be renamed.");
    _db.query("UPDATE objects SET name = ?, folded = ? WHERE id = ?")
        .bind(1, name)
        .bind(2, foldName(name))
        .bind(3, stored.object.id)
        .run();
}

void Store::setParents(std::string const& id, std::vector<std::string> const& parentIds) {
    StoredObject stored = get(id);
    if (stored.object.id == _root_id) throw Error(403, "The root folder cannot be moved.");
    if (parentIds.empty()) throw Error(400, "An object needs at least one parent.");
    std::vector<std::string> below = subtree(stored.object.id);
    std::set<std::string> resolved;
    for (auto const& parentId : parentIds) {
        StoredObject parent = getFolder(parentId);
        if (std::find(below.begin(), below.end(), parent.object.id) != below.end()) {
            throw Error(400, "A folder cannot be moved into itself or its descendants.");
        }
        resolved.insert(parent.object.id);
    }
    _db.query("DELETE FROM parents WHERE child = ?").bind(1, stored.object.id).run();
    for (auto const& parent : resolved) {
        _db.query("INSERT INTO parents(parent, child) VALUES(?, ?)")
            .bind(1, parent)
            .bind(2, stored.object.id)
            .run();
    }
    recomputeTrash(stored.object.id);
}

void Store::setTrashed(std::string const& id, bool trashed) {
    StoredObject stored = get(id);
    if (stored.object.id == _root_id) throw Error(403, "The root folder cannot be trashed.");
    _db.query("UPDATE objects SET explicitly_trashed = ? WHERE id = ?")
        .bind(1, std::int64_t(trashed))
        .bind(2, stored.object.id)
        .run();
    recomputeTrash(stored.object.id);
}

void Store::recomputeTrash(std::string const& id) {
    // An object is in the trash when it was put there or one of its parents
    // is. Sweep the subtree until nothing changes: a folder reachable along
    // two paths may be visited before its other parent. The tree has no
    // cycles, so this ends after at most its depth in sweeps.
    std::vector<std::string> ids = subtree(id);
    for (bool changed = true; changed;) {
        changed = false;
        for (auto const& each : ids) {
            _db.query(
                   "UPDATE objects SET trashed = 1 - trashed WHERE id = ? AND trashed != "
                   "(explicitly_trashed OR EXISTS(SELECT 1 FROM parents p JOIN objects q ON "
                   "q.id = p.parent WHERE p.child = objects.id AND q.trashed = 1))")
                .bind(1, each)
                .run();
            if (_db.changes() > 0) changed = true;
        }
    }
}

void Store::setMtime(std::string const& id, std::int64_t mtime) {
    StoredObject stored = get(id);
    _db.query("UPDATE objects SET mtime = ? WHERE id = ?")
        .bind(1, mtime)
        .bind(2, stored.object.id)
        .run();
}

}  // namespace DriveEmulator
