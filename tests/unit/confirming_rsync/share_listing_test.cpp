// Which lines of a listing name something to copy, and what the reminder looks like to the daemon.
#include "confirming_rsync/reminder.h"
#include "confirming_rsync/share_listing.h"

#include <string>

#include <gtest/gtest.h>

namespace confirming {
namespace {

TEST(ShareListing, NamesWhatTheDaemonWouldCopy) {
    EXPECT_TRUE(namesSomething("-rw-r--r--          1,000 2026/11/21 08:00:00 a"));
    EXPECT_TRUE(namesSomething("-rw-r--r--  0 2026/11/21 08:00:00 dir/.hidden"));
    EXPECT_TRUE(namesSomething("  lrwxrwxrwx  1 2026/11/21 08:00:00 link -> .x"));
    for (const char* line :
         {"", " ", "motd", "drwxr-xr-x  40 2026/11/21 08:00:00 .",
          "-rw-r--r--  0 2026/11/21 08:00:00 .hidden", "-rw-r--r--  0 2026/11/21 08:00:00",
          "-rw-r--r--  0 2026/11/21 08:00 "}) {
        EXPECT_FALSE(namesSomething(line)) << line;
    }
}

TEST(Reminder, IsOneLineThatNamesSomething) {
    const std::string line(reminderLine());
    EXPECT_EQ(line.find('\n'), line.size() - 1);
    EXPECT_TRUE(namesSomething(line.substr(0, line.size() - 1)));
    // The list that the daemon makes of it: the fifth word and a line feed.
    const std::string list = line.substr(line.rfind(' ') + 1);
    EXPECT_EQ(list.front(), '/');
    EXPECT_TRUE(isReminder(list));
    EXPECT_FALSE(isReminder("a\n" + list));
    EXPECT_FALSE(isReminder(list + "a\n"));
    EXPECT_FALSE(isReminder(""));
    EXPECT_FALSE(isReminder(list.substr(1)));
}

} // namespace
} // namespace confirming
