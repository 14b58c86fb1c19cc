// The confirming copy program: drives the stock rsync whose path was set when it was built.
#include "confirming_rsync/program.h"

#include <unistd.h>

int main(int argc, char** argv) {
    return confirming::runProgram(STOCK_RSYNC, argc, argv, environ);
}
