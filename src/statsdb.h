// The statistics database: one SQLite file, vantrelle.db, in the directory that the configuration
// names. It holds snapshots of the four counters (table summary), one row per recorded query
// (dns_traffic), and for every filter list its entries and their hits (four tables per list).
//
// The server opens and closes it; the request path, the filter lists and the bus thread use it.
// All work goes through the one connection oDNS.db, and each call has the connection to itself for
// as long as it lasts, so every function here may be called from any thread. A row that a call
// wrote is visible to other connections when the call returns. Without a working database every
// call fails and logs; none of them crashes.
//
// All functions return 1 for success and 0 for failure unless said otherwise. Table names are the
// lists' names: letters, digits and underscores. Values are pasted into statement texts of at most
// 299 bytes: a value with a single quote, or a text that would be longer, makes the call fail.
#pragma once

#include <cstdint>
#include <netinet/in.h>

struct sqlite3;

// Opens the database at its configured place and restores the counters. Main thread, at start.
int init_stats();

// Opens `file` (created if missing; its directory is not) into `*db` and sets it up for many small
// writes on flash: a write-ahead log, or a truncated rollback journal on file systems that allow
// no shared mapping. Returns an SQLite result code; as with sqlite3_open() the caller closes `*db`
// whatever the result.
int open_database(const char *file, sqlite3 **db);

// Closes oDNS.db, if set, and clears it. Unless another process has the file open, it is a plain
// database file without companions afterwards.
void close_database();

// Keeps the connection to the calling thread, so that several calls, or a transaction around them,
// are not mixed with those of other threads. The same thread may hold it several times.
class DatabaseHold {
  public:
    DatabaseHold();
    ~DatabaseHold();
    DatabaseHold(const DatabaseHold &) = delete;
    DatabaseHold &operator=(const DatabaseHold &) = delete;
    // Null without a database. Other code may use the handle only as long as this lives.
    sqlite3 *get() const;
};

// Create the tables that are missing.
int create_stats_summary_table();
int create_traffic_table();
int create_list_stats_table(const char *table);

// Adds the entry `key` with match mode `opt`, or enables it again under a new id. A key that begins
// with '~' disables the entry named by its rest; one that begins with '#' is refused as a comment.
// The key ends at its first line feed.
int create_frag_key(const char *key, int opt, const char *table);

// Disables the entry `key`; no such entry is a success too.
int remove_frag_key(const char *key, const char *table);

// The text of the entry with this id, disabled or not: a heap copy for the caller, or null.
char *get_frag_by_id(long id, const char *table);

// Records that the entry `frag` decided a query for `fqdn` by the client with address `ip`. Does
// nothing while record_traffic is 0.
int insert_list_record(const char *fqdn, const char *table, const char *frag, const char *ip);

// Records one forwarded query.
int record_request(const char *fqdn, struct sockaddr_in client);

// Appends a snapshot of the counters.
int insert_stats_summary_record(uint64_t requests, uint64_t blocked, uint64_t resets,
                                uint64_t errors);

// Reads the newest snapshot; the counters keep their values when there is none.
int get_stats_summary(uint64_t *requests, uint64_t *blocked, uint64_t *resets, uint64_t *errors);

// How many different clients dns_traffic names; -1 on failure.
int64_t get_unique_client_count();
