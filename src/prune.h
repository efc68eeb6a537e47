// Keeps the database near `stats_max_size`, in MiB of the pages that are in use: a file that was
// larger keeps its size, and its free pages are used again. The write-ahead log is not counted.
//
// Above the limit the oldest rows of dns_traffic, of the lists' hits and of summary are deleted, a
// tenth of each table at a time, until nine tenths of the limit are in use. That is done in steps
// of at most 500 rows, each a transaction of its own, so that nobody waits for long and a kill
// costs one step. Entries of lists are never deleted, nor the newest 1,000 rows of summary.
//
// The recorder (recorder.h) asks and calls, any thread.
#pragma once

#include <cstdint>

enum class StatsSize : uint8_t {
    FITS,
    PRUNING, // too large until now, or until nine tenths of the limit are reached
    GROWING, // and the rows that come are more than those that are deleted
};

// How the pages in use are to the limit; the first that finds too many begins the pruning. FITS
// without a limit, or when it cannot be asked.
StatsSize watch_stats_size();

// One step, and the end of the pruning with the last one. False when it has to wait, for another
// process or for the disk.
bool prune_stats();
