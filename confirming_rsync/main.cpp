// The confirming copy program, with what was set when it was built.
#include "confirming_rsync/program.h"

#include <unistd.h>

int main(int argc, char** argv) {
    return confirming::runProgram({STOCK_RSYNC, JOURNAL_FOLDER}, argc, argv, environ);
}
