// A thin RAII layer over one SQLite connection: cached prepared statements,
// typed binding and reading, and write transactions that take the database
// lock up front. Every SQLite failure becomes Error(500).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace DriveEmulator {

class Db;

// One use of a prepared statement. Bind 1-based parameters, then step()
// through the rows; the statement is reset for its next use on destruction.
class Query {
  public:
    Query(Query&& other) noexcept;
    Query& operator=(Query&&) = delete;
    ~Query();

    Query& bind(int index, std::int64_t value);
    Query& bind(int index, std::string const& value);
    Query& bind(int index, char const* value) { return bind(index, std::string(value)); }
    Query& bind(int index, double value);
    Query& bindNull(int index);

    // Advances to the next row; false when there is none (the statement is done).
    bool step();
    // Steps once, for statements that return nothing.
    void run() { step(); }

    std::int64_t int64(int column) const;
    std::string text(int column) const;
    double real(int column) const;
    bool isNull(int column) const;

  private:
    friend class Db;
    Query(Db& db, sqlite3_stmt* stmt, bool* inUse, bool owned);
    Db* _db;
    sqlite3_stmt* _stmt;
    bool* _in_use;  // the cache slot's flag, or null for an uncached statement
    bool _owned;    // finalize on destruction
};

class Db {
  public:
    // Opens (creating if needed) the database at `path` in WAL mode with a
    // busy timeout, so that several processes can share it.
    explicit Db(std::string const& path);
    ~Db();
    Db(Db const&) = delete;
    Db& operator=(Db const&) = delete;

    // Runs one or more statements without results.
    void exec(char const* sql);
    // A statement from the cache (prepared on first use). A statement already
    // in use by a live Query is prepared afresh, so queries may nest.
    Query query(std::string const& sql);

    std::int64_t lastInsertRowid() const;
    int changes() const;
    sqlite3* handle() const { return _db; }

    // Throws Error(500) naming `what` and SQLite's message when `rc` is a failure.
    void check(int rc, char const* what) const;

  private:
    struct Cached {
        sqlite3_stmt* stmt = nullptr;
        bool inUse = false;
    };
    sqlite3* _db = nullptr;
    std::map<std::string, std::unique_ptr<Cached>> _cache;
};

// A write transaction (BEGIN IMMEDIATE: the lock is taken at once, so two
// writers never deadlock on an upgrade). Rolled back on destruction unless
// committed.
class WriteTransaction {
  public:
    explicit WriteTransaction(Db& db);
    ~WriteTransaction();
    WriteTransaction(WriteTransaction const&) = delete;
    WriteTransaction& operator=(WriteTransaction const&) = delete;
    void commit();

  private:
    Db& _db;
    bool _open;
};

// A read transaction: one consistent snapshot for several queries.
class ReadTransaction {
  public:
    explicit ReadTransaction(Db& db);
    ~ReadTransaction();
    ReadTransaction(ReadTransaction const&) = delete;
    ReadTransaction& operator=(ReadTransaction const&) = delete;

  private:
    Db& _db;
};

// A savepoint inside a transaction: release() keeps its changes, destruction
// without release() undoes them (the enclosing transaction goes on).
class Savepoint {
  public:
    explicit Savepoint(Db& db);
    ~Savepoint();
    Savepoint(Savepoint const&) = delete;
    Savepoint& operator=(Savepoint const&) = delete;
    void release();

  private:
    Db& _db;
    bool _open;
};

}  // namespace DriveEmulator
