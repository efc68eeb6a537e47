// sandbox COMMAND [ARGUMENT...]: runs a command in a new sandbox; see sandbox.h.
#include "sandbox.h"

#include <cstdio>

int main(int argc, char **argv) {
    if (argc > 1)
        return sandbox::run(argv + 1);
    fprintf(stderr, "usage: sandbox COMMAND [ARGUMENT...]\n");
    return 2;
}
