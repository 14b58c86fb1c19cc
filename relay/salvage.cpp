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

/// Copies rows in that order, as far as they can be read. What is there already stays.
bool copyRows(const std::string& damagedFile, const std::string& select, SQLite::Database& into,
              const std::string& insert) {
    try {
        const SQLite::Database damaged(damagedFile, SQLite::OPEN_READONLY);
        SQLite::Statement rows(damaged, select);
        SQLite::Statement copy(into, "INSERT OR IGNORE INTO " + insert);
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
    const auto copy = [&](const char* select, const char* insert) {
        return copyRows(damagedFile, select, into, insert);
    };
    const char* const record = "records VALUES (?,?,?,?,?,?,?,?,?,?,?)";
    // If there is no way through, from the other end, too, down to the damage.
    const bool hasRecords = copy("SELECT * FROM records ORDER BY seq", record) ||
                            copy("SELECT * FROM records ORDER BY seq DESC", record);
    const bool hasIntake = copy("SELECT * FROM intake", "intake VALUES (?,?,?,?,?,?)");
    const bool hasPositions = copy("SELECT * FROM subscribers", "subscribers VALUES (?,?,?,?,?)");
    const bool hasLetters = copy("SELECT * FROM dead_letters", "dead_letters VALUES (?,?,?,?,?)");
    const bool hasRuns =
        copy("SELECT * FROM runs", "runs VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)") &&
        copy("SELECT * FROM run_parts", "run_parts VALUES (?,?,?,?,?,?)") &&
        copy("SELECT * FROM run_files", "run_files VALUES (?,?,?,?,?,?,?,?,?,?)") &&
        copy("SELECT * FROM runs_position", "runs_position VALUES (?,?)");
    return hasRecords && hasIntake && hasPositions && hasLetters && hasRuns;
}

} // namespace relay
