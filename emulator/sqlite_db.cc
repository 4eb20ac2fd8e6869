#include "sqlite_db.h"

#include "drive_types.h"

namespace DriveEmulator {

namespace {
// Long enough to ride out another process's transfer commit or a checkpoint;
// a writer waiting longer than this points at a stuck process.
constexpr int kBusyTimeoutMs = 30000;
}  // namespace

Query::Query(Db& db, sqlite3_stmt* stmt, bool* inUse, bool owned)
    : _db(&db), _stmt(stmt), _in_use(inUse), _owned(owned) {}

Query::Query(Query&& other) noexcept
    : _db(other._db), _stmt(other._stmt), _in_use(other._in_use), _owned(other._owned) {
    other._stmt = nullptr;
    other._in_use = nullptr;
    other._owned = false;
}

Query::~Query() {
    if (!_stmt) return;
    if (_owned) {
        sqlite3_finalize(_stmt);
        return;
    }
    sqlite3_reset(_stmt);
    sqlite3_clear_bindings(_stmt);
    if (_in_use) *_in_use = false;
}

Query& Query::bind(int index, std::int64_t value) {
    _db->check(sqlite3_bind_int64(_stmt, index, value), "bind");
    return *this;
}

Query& Query::bind(int index, std::string const& value) {
    _db->check(sqlite3_bind_text(_stmt, index, value.data(), static_cast<int>(value.size()),
                                 SQLITE_TRANSIENT),
               "bind");
    return *this;
}

Query& Query::bind(int index, double value) {
    _db->check(sqlite3_bind_double(_stmt, index, value), "bind");
    return *this;
}

Query& Query::bindNull(int index) {
    _db->check(sqlite3_bind_null(_stmt, index), "bind");
    return *this;
}

bool Query::step() {
    int rc = sqlite3_step(_stmt);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    _db->check(rc, sqlite3_sql(_stmt));
    return false;
}

std::int64_t Query::int64(int column) const { return sqlite3_column_int64(_stmt, column); }

std::string Query::text(int column) const {
    auto p = reinterpret_cast<char const*>(sqlite3_column_text(_stmt, column));
    if (!p) return std::string();
    return std::string(p, static_cast<size_t>(sqlite3_column_bytes(_stmt, column)));
}

double Query::real(int column) const { return sqlite3_column_double(_stmt, column); }

bool Query::isNull(int column) const { return sqlite3_column_type(_stmt, column) == SQLITE_NULL; }

Db::Db(std::string const& path) {
    int rc =
        sqlite3_open_v2(path.c_str(), &_db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        std::string message = _db ? sqlite3_errmsg(_db) : sqlite3_errstr(rc);
        sqlite3_close(_db);
        _db = nullptr;
        throw Error(500, "cannot open " + path + ": " + message);
    }
    sqlite3_busy_timeout(_db, kBusyTimeoutMs);
    // WAL lets readers in other processes go on while one writes; NORMAL
    // syncs at checkpoints only, which is durable enough for a test service
    // and keeps a request's commit off the disk's latency.
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;");
}

Db::~Db() {
    for (auto& entry : _cache) sqlite3_finalize(entry.second->stmt);
    sqlite3_close(_db);
}

void Db::check(int rc, char const* what) const {
    if (rc == SQLITE_OK || rc == SQLITE_ROW || rc == SQLITE_DONE) return;
    throw Error(500, std::string("Internal Error (database: ") + (what ? what : "") + ": " +
                         sqlite3_errmsg(_db) + ")");
}

void Db::exec(char const* sql) {
    char* message = nullptr;
    int rc = sqlite3_exec(_db, sql, nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        std::string text = message ? message : sqlite3_errstr(rc);
        sqlite3_free(message);
        throw Error(500, std::string("Internal Error (database: ") + sql + ": " + text + ")");
    }
}

Query Db::query(std::string const& sql) {
    auto& slot = _cache[sql];
    if (!slot) slot = std::make_unique<Cached>();
    if (!slot->stmt) {
        check(sqlite3_prepare_v3(_db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &slot->stmt,
                                 nullptr),
              sql.c_str());
    }
    if (slot->inUse) {
        sqlite3_stmt* fresh = nullptr;
        check(sqlite3_prepare_v2(_db, sql.c_str(), -1, &fresh, nullptr), sql.c_str());
        return Query(*this, fresh, nullptr, true);
    }
    slot->inUse = true;
    return Query(*this, slot->stmt, &slot->inUse, false);
}

std::int64_t Db::lastInsertRowid() const { return sqlite3_last_insert_rowid(_db); }

int Db::changes() const { return sqlite3_changes(_db); }

WriteTransaction::WriteTransaction(Db& db) : _db(db), _open(false) {
    _db.exec("BEGIN IMMEDIATE");
    _open = true;
}

WriteTransaction::~WriteTransaction() {
    if (_open) sqlite3_exec(_db.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void WriteTransaction::commit() {
    _db.exec("COMMIT");
    _open = false;
}

ReadTransaction::ReadTransaction(Db& db) : _db(db) { _db.exec("BEGIN"); }

ReadTransaction::~ReadTransaction() {
    sqlite3_exec(_db.handle(), "COMMIT", nullptr, nullptr, nullptr);
}

Savepoint::Savepoint(Db& db) : _db(db), _open(false) {
    _db.exec("SAVEPOINT op");
    _open = true;
}

Savepoint::~Savepoint() {
    if (!_open) return;
    sqlite3_exec(_db.handle(), "ROLLBACK TO op; RELEASE op", nullptr, nullptr, nullptr);
}

void Savepoint::release() {
    _db.exec("RELEASE op");
    _open = false;
}

}  // namespace DriveEmulator
