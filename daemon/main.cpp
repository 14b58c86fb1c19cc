// The program's entry point.
#include "daemon/daemon.h"
#include "daemon/global.h"

int main(int argc, char** argv) {
    GLOBAL::argc = argc;
    GLOBAL::argv = argv;
    Daemon daemon;
    daemon.start();
    return 0;
}
