#include "runtime/Startup.h"

int main(int argc, char** argv) {
    return runMonitor(argc, argv);
}
