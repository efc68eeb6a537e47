// Small things that the client library and the bus daemon share.
#pragma once

#include <stdbool.h>

// Where the bus listens unless told otherwise.
#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
#endif

// Whether two texts are equal; *len receives the number of leading characters they share.
static inline bool ubus_strmatch_len(const char *s1, const char *s2, int *len) {
    for (*len = 0; s1[*len] == s2[*len]; (*len)++) {
        if (!s1[*len])
            return true;
    }
    return false;
}
