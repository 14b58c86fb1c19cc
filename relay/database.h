// SQLite in C++ clothes: one connection, its statements and its transactions.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace relay {

/// What SQLite could not do, in one sentence.
class DatabaseError : public std::runtime_error {
public:
    DatabaseError(const std::string& sentence, int sqliteCode)
        : std::runtime_error(sentence), code(sqliteCode) {}

    /// True if what stands in the file is no database any more: trying again helps nothing. All
    /// else (a full disk, an I/O error, no rights) may pass.
    bool isDamage() const;

private:
    int code;
};

/// A prepared statement. Parameters and columns are numbered as in SQLite: from 1 and from 0. What
/// is bound must live until the statement is reset.
class Statement {
public:
    Statement(sqlite3* connection, std::string_view text);

    Statement& bind(int parameter, std::int64_t value);
    Statement& bindText(int parameter, std::string_view text);
    Statement& bindBytes(int parameter, std::string_view bytes);
    Statement& bindNull(int parameter);

    /// True if there is a row, false at the end. Throws DatabaseError.
    bool step();

    /// Runs it to its end and resets it.
    void run();

    /// To be called before it is used again; a statement that was not reset keeps its transaction.
    void reset();

    std::int64_t integer(int column) const;
    std::string bytes(int column) const;
    bool isNull(int column) const;

private:
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalizer> prepared;
    sqlite3* database;
};

/// Resets a statement at the end of its use, however that comes.
class Use {
public:
    explicit Use(Statement& used) : statement(used) {}
    ~Use() { statement.reset(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    Statement* operator->() { return &statement; }

private:
    Statement& statement;
};

/// A connection. Used by one thread at a time.
class Database {
public:
    enum class Access { readWrite, readOnly };

    /// Opens the file, and makes it if it is missing and not `readOnly`. Throws DatabaseError.
    Database(const std::string& path, Access access);

    void execute(const std::string& statements);
    std::int64_t number(const std::string& query); // the first column of the only row
    std::string text(const std::string& query);
    Statement prepare(std::string_view text) { return {connection.get(), text}; }
    std::int64_t changes() const; // how many rows the last statement that changed some has changed
    bool isInTransaction() const;

private:
    struct Closer {
        void operator()(sqlite3* opened) const;
    };
    std::unique_ptr<sqlite3, Closer> connection;
};

/// Everything between its making and its commit is in the database, or nothing.
class Transaction {
public:
    explicit Transaction(Database& inDatabase);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit();

private:
    Database& database;
    bool isOpen = true;
};

} // namespace relay
