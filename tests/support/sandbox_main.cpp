// sandbox [--join] COMMAND [ARGUMENT...]: runs a command in a new sandbox, or in the newest running
// one. See sandbox.h.
#include "sandbox.h"

#include <cstdio>
#include <cstring>

int main(int argc, char **argv) {
    bool join = argc > 1 && strcmp(argv[1], "--join") == 0;
    char **command = argv + (join ? 2 : 1);
    if (!*command) {
        fprintf(stderr, "usage: sandbox [--join] COMMAND [ARGUMENT...]\n");
        return 2;
    }
    return join ? sandbox::join(command) : sandbox::run(command);
}
