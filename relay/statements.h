// SQL statements of one transaction, each prepared once however often it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include <SQLiteCpp/SQLiteCpp.h>
#include <SQLiteCpp/VariadicBind.h>

namespace relay {

/// All may throw SQLite::Exception.
class Statements {
public:
    explicit Statements(SQLite::Database& ofDatabase) : database(ofDatabase) {}

    /// Begins a statement with these values for its marks. It is known by the place of its text:
    /// that must be a constant, and its rows are read to their end before it is begun again.
    template<std::size_t size, class... Values>
    SQLite::Statement& begin(const char (&text)[size], const Values&... values) {
        SQLite::Statement& statement = prepared.try_emplace(text, database, text).first->second;
        statement.reset();
        SQLite::bind(statement, values...);
        return statement;
    }

    /// Runs it to its end. Returns how many rows it has changed.
    template<std::size_t size, class... Values>
    std::int64_t run(const char (&text)[size], const Values&... values) {
        return begin(text, values...).exec();
    }

    /// The first column of the first row; 0 if there is none.
    template<std::size_t size, class... Values>
    std::int64_t number(const char (&text)[size], const Values&... values) {
        SQLite::Statement& row = begin(text, values...);
        return row.executeStep() ? row.getColumn(0).getInt64() : 0;
    }

private:
    SQLite::Database& database;
    std::map<const char*, SQLite::Statement> prepared;
};

} // namespace relay
