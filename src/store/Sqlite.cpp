#include "Sqlite.hpp"

#include "tsappinstall/store/AppStore.hpp"

namespace tsappinstall::store::detail {

namespace {

// `file` as a URI filename: the characters a URI gives a meaning to escaped.
std::string uriOf(const std::string& file) {
    static const char hex[] = "0123456789abcdef";
    std::string uri = "file:";
    for (const char c : file) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '%' || c == '?' || c == '#' || byte < 0x20 || byte >= 0x7f)
            uri += {'%', hex[byte >> 4], hex[byte & 15]};
        else
            uri += c;
    }
    return uri;
}

}  // namespace

Database::Database(const std::string& file, int busyMillis, Open open, const char* vfs)
    : file_(file) {
    sqlite3* db = nullptr;
    const int flags = open == Open::ReadWrite ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                                              : SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
    const std::string name = open == Open::ReadWrite  ? file
                             : open == Open::ReadOnly ? uriOf(file)
                                                      : uriOf(file) + "?immutable=1";
    const int code = sqlite3_open_v2(name.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, vfs);
    db_.reset(db);
    if (code != SQLITE_OK) fail(code, "cannot be opened");
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, busyMillis);
}

void Database::exec(const char* sql) const {
    const int code = sqlite3_exec(get(), sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) fail(code, "cannot be updated");
}

Statement Database::prepare(const char* sql) const {
    return Statement(*this, sql);
}

void Database::fail(int code, const std::string& what) const {
    const int primary = code & 0xff;
    const bool damaged = primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
    std::string detail = db_ ? sqlite3_errmsg(db_.get()) : sqlite3_errstr(code);
    if (detail.empty() || detail == "not an error") detail = sqlite3_errstr(code);
    std::string line = "the database " + file_ + " " + what + ": " + detail;
    if (damaged) line += "; it was left as it is";
    throw StoreError(damaged ? FaultKind::BadDatabase : FaultKind::StoreFailed, {line});
}

Statement::Statement(const Database& db, const char* sql) : db_(&db) {
    sqlite3_stmt* statement = nullptr;
    const int code = sqlite3_prepare_v2(db.get(), sql, -1, &statement, nullptr);
    statement_.reset(statement);
    if (code != SQLITE_OK) db.fail(code, "cannot be read");
}

Statement& Statement::bind(int index, const std::string& value) {
    sqlite3_bind_text(statement_.get(), index, value.data(), static_cast<int>(value.size()),
                      SQLITE_TRANSIENT);
    return *this;
}

Statement& Statement::bind(int index, std::int64_t value) {
    sqlite3_bind_int64(statement_.get(), index, value);
    return *this;
}

bool Statement::step() {
    const int code = sqlite3_step(statement_.get());
    if (code == SQLITE_ROW) return true;
    if (code == SQLITE_DONE) return false;
    db_->fail(code, "cannot be used");
}

std::string Statement::text(int column) const {
    const auto* bytes = sqlite3_column_text(statement_.get(), column);
    return bytes ? std::string(
                       reinterpret_cast<const char*>(bytes),
                       static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column)))
                 : std::string();
}

std::int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(statement_.get(), column);
}

void Statement::reset() {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
}

Transaction::Transaction(const Database& db, const char* begin) : db_(db) {
    db_.exec(begin);
}

Transaction::~Transaction() {
    if (open_) sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
    db_.exec("COMMIT");
    open_ = false;
}

}  // namespace tsappinstall::store::detail
