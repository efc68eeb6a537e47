// The settings report: what the daemon runs with, line by line, for its owner.
//
// The server writes it once at start, the signals of signals.h ask for it with the counters.
#pragma once

// Reports the settings to the log, and with a non-zero argument the counters (which writes a row of
// them) and the list sizes. One thread at a time: the main thread until the signal thread runs, and
// then that one.
void log_config(int with_stats);

// The same report to standard output, in one line. Without a caller in the daemon.
void print_config(int with_stats);
