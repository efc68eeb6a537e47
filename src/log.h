// What reaches the system log: its mask, the two trace flags, and the marker for a missing text.
//
// Lines are written with syslog() wherever they arise. Settings and the bus change mask and flags,
// everybody asks. Any thread.
#pragma once

// Sets the log mask to all priorities up to and including `level`; a negative one leaves it.
void set_log_mask(int level);

// Sets the priorities that reach the log, as bits of LOG_MASK(), and returns those of before.
int set_logged_priorities(int mask);

// Whether lines of a priority reach the log now: asked where the line's arguments cost more than
// the line. Takes no lock, which setlogmask() may.
bool is_logged(int priority);

// Sets the trace flags, the settings `debug` and `debug_sql`.
void set_traces(bool debug, bool debug_sql);

// The trace flags, crossed: is_sql_debug() is the setting "debug" and turns on the traces of the
// database, is_debug() is "debug_sql" and turns on those of the configuration store and of list
// matches. Existing set-ups rely on it.
bool is_debug();
bool is_sql_debug();

// The text as a line shows it: "(null)" for a null.
const char *shown(const char *text);
