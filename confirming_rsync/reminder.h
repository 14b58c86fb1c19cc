// The reminder: an entry of its own in an otherwise empty listing, which makes the daemon start a
// copy run although there is nothing to copy.
#pragma once

#include "confirming_rsync/descriptors.h"

#include <string>
#include <string_view>

namespace confirming {

// Only a copy run can announce what an earlier one has left open, and the daemon starts one only
// for what a listing names. Without the reminder, the last files before a death would wait for the
// next file that the detector writes.

/// The line of the listing. It names something that no share can have: an absolute path.
std::string_view reminderLine();

/// True for the text of the list that the daemon makes of that line.
bool isReminder(std::string_view list);

/// True if runs that copied from this share, and are over, have left names open, and they were not
/// reminded of too often already: a run to another destination does not decide about them. Removes
/// the journals of runs that have left nothing open.
bool isReminderDue(const std::string& journals, const std::string& source);

/// Counts a reminder that was given.
void countReminder(const std::string& journals, const std::string& source);

/// Forgets the count of this folder's journals: they have been decided about.
void forgetReminders(const Descriptor& folder);

} // namespace confirming
