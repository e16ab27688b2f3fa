// Writes lines into the log as one of several processes: logWriter <name> <count>.
#include "log/log.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "?";
    const int count = argc > 2 ? atoi(argv[2]) : 1;
    Log_Begin(name);
    for (int i = 0; i < count; i++) {
        Log_Level(LOG_ALWAYS, "%s %06d %0*d", name, i, 20 + i % 80, 0);
    }
    Log_End();
    return 0;
}
