// Assertions that stand in every build. Release builds and the router's package build define
// NDEBUG, which turns assert() off together with whatever its argument does.
#pragma once

// Does nothing when `holds` is true; otherwise prints "Assertion failed: TEXT (WHERE)" to standard
// error and aborts the process. Any thread.
void require(bool holds, const char *text, const char *where);
