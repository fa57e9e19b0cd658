#pragma once

// Small owners of SQLite's handles: a connection, a prepared statement and
// a write transaction that rolls back unless committed.

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

namespace tsappinstall::store::detail {

class Statement;

class Database {
  public:
    // ReadWrite creates the file when missing. ReadOnly never writes, but
    // SQLite makes the -wal and -shm files beside it when they are missing
    // and the folder lets it. Immutable reads the file alone, with no locks
    // and no -wal: only for a database no one can change meanwhile.
    enum class Open { ReadWrite, ReadOnly, Immutable };
    // Opens the database file with extended result codes; waits up to
    // `busyMillis` for another connection's lock. `vfs` names a registered
    // VFS to open it with; null: SQLite's default.
    Database(const std::string& file, int busyMillis, Open open = Open::ReadWrite,
             const char* vfs = nullptr);
    sqlite3* get() const { return db_.get(); }
    void exec(const char* sql) const;
    Statement prepare(const char* sql) const;
    // Throws StoreError (BadDatabase for damage, Failed otherwise) with
    // `what` and SQLite's own description of `code`.
    [[noreturn]] void fail(int code, const std::string& what) const;

  private:
    struct Close {
        void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
    };
    std::string file_;
    std::unique_ptr<sqlite3, Close> db_;
};

class Statement {
  public:
    Statement(const Database& db, const char* sql);
    Statement& bind(int index, const std::string& value);
    Statement& bind(int index, std::int64_t value);
    // True while a row is there to read; false once done.
    bool step();
    void run() {
        while (step()) {
        }
    }
    std::string text(int column) const;
    std::int64_t integer(int column) const;
    void reset();

  private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    const Database* db_;
    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// BEGIN IMMEDIATE: the write lock is taken at once, so two writers
// serialize at the start instead of failing at their first write.
class Transaction {
  public:
    explicit Transaction(const Database& db, const char* begin = "BEGIN IMMEDIATE");
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

  private:
    const Database& db_;
    bool open_ = true;
};

}  // namespace tsappinstall::store::detail
