// What the fuzz functions share.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

// Ends the process, which is a finding, when something does not hold.
inline void check(bool holds) {
    if (!holds)
        std::abort();
}
