// The signal handler that the daemon has but never installs.
#include "daemon/signal_handling.h"

void SIGNAL_HANDLING::signalHandler(int /*signalNumber*/) {
}
