// The reminder: an entry of its own in an otherwise empty listing, which makes the daemon start a
// copy run although there is nothing to copy.
#include "confirming_rsync/reminder.h"

#include "confirming_rsync/earlier_runs.h"
#include "confirming_rsync/journal_folder.h"
#include "confirming_rsync/text_files.h"

#include <cstddef>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace confirming {

namespace {

constexpr std::string_view line =
    "-rw-r--r--              0 1970/01/01 00:00:00 /rsync_orbelin:recovery\n";
constexpr std::size_t nameLength = sizeof "/rsync_orbelin:recovery\n" - 1;

/// One byte for each reminder that was given.
constexpr const char* countName = "reminders";
constexpr off_t mostReminders = 3;
constexpr mode_t ownFile = 0600;

} // namespace

std::string_view reminderLine() {
    return line;
}

bool isReminder(std::string_view list) {
    return list == line.substr(line.size() - nameLength);
}

bool isReminderDue(const std::string& journals, const std::string& source) {
    bool due = false;
    for (const Descriptor& folder : openJournalFolders(journals, source)) {
        EarlierRuns earlier(folder, {nullptr, &source, nullptr});
        struct stat status {};
        if (!earlier.leaveNamesOpen()) {
            earlier.remove();
        } else if (::fstatat(folder.get(), countName, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
                   status.st_size < mostReminders) {
            due = true;
        }
    }
    return due;
}

void countReminder(const std::string& journals, const std::string& source) {
    for (const Descriptor& folder : openJournalFolders(journals, source)) {
        if (!EarlierRuns(folder, {nullptr, &source, nullptr}).leaveNamesOpen()) {
            continue;
        }
        const Descriptor count(
            ::openat(folder.get(), countName,
                     O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, ownFile));
        if (count) {
            writeText(count, "+");
        }
    }
}

void forgetReminders(const Descriptor& folder) {
    ::unlinkat(folder.get(), countName, 0);
}

} // namespace confirming
