// The four counters of the settings record, their rows in the statistics database and their lines
// in the log.
//
// Whoever answers queries counts; the server restores the counters at start and writes them a last
// time at shutdown; reports and the bus thread read them.
#pragma once

#include <cstdint>

// Opens the statistics database and restores the counters from its newest summary row. Returns 1,
// or 0 without a database. Main thread, once.
int init_stats();

// Adds to the counters; writes and logs them whenever `requests` is a multiple of
// log_stats_interval, also when it did not change. Holder of `lock`.
void update_stats(int32_t requests, int32_t blocked, int32_t resets, int32_t errors);

// The two halves of it, for those who must not wait for the database where they count. The first
// returns whether the second falls due. Any thread.
bool count_only(int32_t requests, int32_t blocked, int32_t resets, int32_t errors);
void report_stats();

// Whether update_stats() writes and logs at that number of requests.
bool is_report_due(uint64_t requests);

// Appends the counters to the summary table, if there is a database, or has the recorder do so. If
// earlier totals could not be read yet, they are read and added first, and without them nothing is
// written. Any thread.
void write_stats();

// Restores the counters from the newest summary row (two names of one operation). Main thread,
// once, after the database was opened.
void read_stats();
void reload_stats();

// Logs the counters and writes them. Main thread.
void log_stats();

// The block rate that the bus reports: always 0.0, it is not computed.
double get_block_rate();

// Reads one of the four counters of oDNS. Any thread.
uint64_t read_counter(const uint64_t &counter);
