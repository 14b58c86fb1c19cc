// Sleeping for a number of milliseconds.
#pragma once

namespace UTILITIES {

/// Blocks the calling thread for `milliseconds`, in pieces of at most half a second. A signal does
/// not shorten it: an interrupted piece is resumed with what was left. 0 sleeps once for no time; a
/// negative value returns at once.
void sleepMilliSeconds(long milliseconds);

} // namespace UTILITIES
