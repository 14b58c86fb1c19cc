// SQLite in C++ clothes: one connection, its statements and its transactions.
#include "relay/database.h"

#include <sqlite3.h>

namespace relay {

namespace {

[[noreturn]] void fail(sqlite3* connection, const std::string& doing) {
    const int code = sqlite3_extended_errcode(connection);
    std::string sentence = doing + ": " + sqlite3_errmsg(connection);
    if (const int error = sqlite3_system_errno(connection); (code & 0xff) == SQLITE_IOERR) {
        sentence += " (system error " + std::to_string(error) + ")";
    }
    throw DatabaseError(sentence, code);
}

void check(int status, sqlite3* connection, const std::string& doing) {
    if (status != SQLITE_OK) {
        fail(connection, doing);
    }
}

} // namespace

bool DatabaseError::isDamage() const {
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

void Statement::Finalizer::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

Statement::Statement(sqlite3* connection, std::string_view text) : database(connection) {
    sqlite3_stmt* statement = nullptr;
    const int status = sqlite3_prepare_v3(connection, text.data(), static_cast<int>(text.size()),
                                          SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    prepared.reset(statement);
    check(status, connection, "cannot prepare a statement");
}

Statement& Statement::bind(int parameter, std::int64_t value) {
    check(sqlite3_bind_int64(prepared.get(), parameter, value), database, "cannot bind a number");
    return *this;
}

Statement& Statement::bindText(int parameter, std::string_view text) {
    check(sqlite3_bind_text(prepared.get(), parameter, text.data(), static_cast<int>(text.size()),
                            SQLITE_STATIC),
          database, "cannot bind a text");
    return *this;
}

Statement& Statement::bindBytes(int parameter, std::string_view bytes) {
    check(sqlite3_bind_blob(prepared.get(), parameter, bytes.data(), static_cast<int>(bytes.size()),
                            SQLITE_STATIC),
          database, "cannot bind bytes");
    return *this;
}

Statement& Statement::bindNull(int parameter) {
    check(sqlite3_bind_null(prepared.get(), parameter), database, "cannot bind nothing");
    return *this;
}

bool Statement::step() {
    const int status = sqlite3_step(prepared.get());
    if (status != SQLITE_ROW && status != SQLITE_DONE) {
        fail(database, "the database failed");
    }
    return status == SQLITE_ROW;
}

void Statement::run() {
    const Use whole(*this);
    while (step()) {
    }
}

void Statement::reset() {
    sqlite3_reset(prepared.get()); // tells again what the last step told
}

std::int64_t Statement::integer(int column) const {
    return sqlite3_column_int64(prepared.get(), column);
}

std::string Statement::bytes(int column) const {
    const void* const begin = sqlite3_column_blob(prepared.get(), column);
    const int size = sqlite3_column_bytes(prepared.get(), column);
    return begin == nullptr
               ? std::string()
               : std::string(static_cast<const char*>(begin), static_cast<std::size_t>(size));
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(prepared.get(), column) == SQLITE_NULL;
}

void Database::Closer::operator()(sqlite3* opened) const {
    sqlite3_close_v2(opened);
}

Database::Database(const std::string& path, Access access) {
    // Without its account of memory, which nobody asks for, it takes no lock for each allocation.
    // Refused, without harm, once there is a connection.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    sqlite3* opened = nullptr;
    const int flags = access == Access::readOnly ? SQLITE_OPEN_READONLY
                                                 : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int status = sqlite3_open_v2(
        path.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE, nullptr);
    connection.reset(opened);
    if (opened == nullptr) {
        throw DatabaseError("no memory for " + path, SQLITE_NOMEM);
    }
    check(status, opened, "cannot open " + path);
}

void Database::execute(const std::string& statements) {
    check(sqlite3_exec(connection.get(), statements.c_str(), nullptr, nullptr, nullptr),
          connection.get(), "the database failed");
}

std::int64_t Database::number(const std::string& query) {
    Statement statement = prepare(query);
    return statement.step() ? statement.integer(0) : 0;
}

std::string Database::text(const std::string& query) {
    Statement statement = prepare(query);
    return statement.step() ? statement.bytes(0) : std::string();
}

std::int64_t Database::changes() const {
    return sqlite3_changes64(connection.get());
}

bool Database::isInTransaction() const {
    return sqlite3_get_autocommit(connection.get()) == 0;
}

Transaction::Transaction(Database& inDatabase) : database(inDatabase) {
    if (database.isInTransaction()) {
        database.execute("ROLLBACK"); // one whose own rollback failed
    }
    database.execute("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    // Some failures have rolled it back already.
    if (isOpen && database.isInTransaction()) {
        try {
            database.execute("ROLLBACK");
        } catch (const DatabaseError&) {
            // The connection is rolled back when it is closed, or by whoever opens the file next.
        }
    }
}

void Transaction::commit() {
    database.execute("COMMIT");
    isOpen = false;
}

} // namespace relay
