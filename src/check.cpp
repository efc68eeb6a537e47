#include "check.h"

#include <cstdio>
#include <cstdlib>

void require(bool holds, const char *text, const char *where) {
    if (holds)
        return;
    fprintf(stderr, "Assertion failed: %s (%s)\n", text, where);
    abort();
}
