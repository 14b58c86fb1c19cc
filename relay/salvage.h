// What can still be read of a damaged database.
#pragma once

#include <string>

namespace SQLite {
class Database;
}

namespace relay {

/// Carries it over into a new database, whose tables are there and empty. False if that was not
/// possible for all of it.
bool salvage(const std::string& damagedFile, SQLite::Database& into);

} // namespace relay
