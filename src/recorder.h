// Records what was queried, hit and counted, or hands it to a thread that does.
//
// With `stats_write_delay` above 0 rows wait in memory, at most 4,096 of them, and one thread
// writes them together, in the order in which they came: when the oldest has waited that long, when
// three quarters of the queue are full, when a summary row comes (so at SIGUSR2, too), before an
// edit of a list, and at the end. While the file cannot be written, because another process holds
// it or the disk is full, they are tried again every second, and a full queue drops the oldest
// ones. A caller never waits for that: only for room in a queue that is being written.
//
// Otherwise, and without a database, each row is written at once, by its caller, as statsdb.h says.
// With `stats_max_size` the thread runs all the same, and prunes (prune.h).
//
// Locking: a caller may hold `lock`, but no list's mutex. The thread takes none of the daemon's
// locks but the database's connection, that of list loading before it, and that of the counters
// behind it.
#pragma once

#include <cstdint>
#include <netinet/in.h>

// Start the thread if one of the settings asks for it, and end it. Ending writes what is queued and
// waits up to ten seconds for a file that cannot be written; then the rows are given up, with a
// line in the log. Main thread; the database is open, and at the end nobody records any more.
void start_recorder();
void end_recorder();

// Whether rows are queued. Any thread, as all that follow.
bool records_late();

// Record one forwarded query, and one hit (insert_list_record() in statsdb.h). Texts are copied.
void record_query(const char *name, sockaddr_in client);
void record_hit(const char *fqdn, const char *table, const char *frag, const char *ip);

inline constexpr int COUNTERS = 4; // requests, blocked, resets, errors

// Queues a summary row, while records_late(). Before it is written it is passed to `complete`,
// unless that is null, which may change it; without its consent it is not written.
void record_summary(const uint64_t (&numbers)[COUNTERS], bool (*complete)(uint64_t (&)[COUNTERS]));

// Has the thread call `task` soon, for what would make a query wait for the database. False while
// rows are not queued: the caller does it then.
bool leave_to_recorder(void (*task)());
