// The confirming copy program, with what was set when it was built.
#include "confirming_rsync/program.h"

#include <chrono>

#include <unistd.h>

int main(int argc, char** argv) {
    confirming::Limits limits;
    limits.standstill = std::chrono::seconds(STANDSTILL_SECONDS);
    limits.announceAgain = std::chrono::seconds(ANNOUNCE_AGAIN_SECONDS);
    return confirming::runProgram({STOCK_RSYNC, JOURNAL_FOLDER, FIGURES_FOLDER, FLUSHING != 0},
                                  limits, argc, argv, environ);
}
