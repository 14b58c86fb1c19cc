// What can still be read of a damaged database.
#include "relay/salvage.h"

#include <string>

#include <SQLiteCpp/SQLiteCpp.h>

namespace relay {

namespace {

constexpr int rowsAtOnce = 10000; // in one transaction

/// One row as it is.
void copyRow(const SQLite::Statement& from, SQLite::Statement& into) {
    into.reset();
    into.clearBindings();
    for (int n = 0; n < from.getColumnCount(); ++n) {
        const SQLite::Column column = from.getColumn(n);
        if (column.isInteger()) {
            into.bind(n + 1, column.getInt64());
        } else if (column.isBlob()) {
            into.bind(n + 1, column.getBlob(), column.getBytes());
        } else if (column.isText()) {
            into.bind(n + 1, column.getString());
        }
    }
    into.exec();
}

/// Copies a table's rows in that order, as far as they can be read. What is there already stays.
bool copyRows(const std::string& damagedFile, const std::string& table, const std::string& order,
              SQLite::Database& into) {
    try {
        const SQLite::Database damaged(damagedFile, SQLite::OPEN_READONLY);
        SQLite::Statement rows(damaged, "SELECT * FROM " + table + order);
        std::string marks = "?";
        for (int n = 1; n < rows.getColumnCount(); ++n) {
            marks += ",?";
        }
        SQLite::Statement copy(into, "INSERT OR IGNORE INTO " + table + " VALUES (" + marks + ")");
        bool isReadable = true;
        for (bool isMore = rows.executeStep(); isMore;) {
            SQLite::Transaction transaction(into);
            for (int n = 0; isMore && n < rowsAtOnce; ++n) {
                copyRow(rows, copy);
                try {
                    isMore = rows.executeStep();
                } catch (const SQLite::Exception&) {
                    isMore = isReadable = false; // what was read so far is carried over
                }
            }
            transaction.commit();
        }
        return isReadable;
    } catch (const SQLite::Exception&) {
        return false; // the damaged one stays, whichever of the two has failed
    }
}

} // namespace

bool salvage(const std::string& damagedFile, SQLite::Database& into) {
    // If there is no way through, from the other end, too, down to the damage.
    bool isWhole = copyRows(damagedFile, "records", " ORDER BY seq", into) ||
                   copyRows(damagedFile, "records", " ORDER BY seq DESC", into);
    // Each whatever has become of the others.
    for (const char* const table : {"intake", "subscribers", "dead_letters", "runs", "run_parts",
                                    "run_files", "runs_position"}) {
        isWhole = copyRows(damagedFile, table, "", into) && isWhole;
    }
    return isWhole;
}

} // namespace relay
