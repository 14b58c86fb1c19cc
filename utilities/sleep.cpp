// The only way in which the daemon sleeps.
#include "utilities/sleep.h"

#include <ctime>

namespace {

constexpr long longestPiece = 500;
constexpr long nanosecondsPerMillisecond = 1000000;

} // namespace

void UTILITIES::sleepMilliSeconds(long milliseconds) {
    if (milliseconds < 0) {
        return;
    }
    if (milliseconds <= longestPiece) {
        timespec request = {0, milliseconds * nanosecondsPerMillisecond};
        timespec remaining = {0, 0};
        while (nanosleep(&request, &remaining) == -1) {
            request.tv_nsec = remaining.tv_nsec;
        }
        return;
    }
    const int pieces = static_cast<int>(milliseconds / longestPiece);
    for (int i = 0; i < pieces; ++i) {
        sleepMilliSeconds(longestPiece);
    }
    sleepMilliSeconds(milliseconds % longestPiece);
}
