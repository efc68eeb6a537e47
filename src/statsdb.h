// The statistics database: one SQLite file, vantrelle.db, in the directory that the configuration
// names. It holds snapshots of the four counters (table summary), one row per recorded query
// (dns_traffic), and for every filter list its entries and their hits (four tables per list).
//
// counters.cpp opens it, the server closes it; the recorder (recorder.h), the filter lists and the
// bus thread use it. All work goes through the one connection oDNS.db, and each call has the
// connection to itself for as long as it lasts, so every function here may be called from any
// thread. A row that a call wrote is visible to other connections when the call returns. Without a
// working database every call fails and logs; none of them crashes.
//
// Another process may hold the file for a while, to back it up, say. How long is waited for it
// depends on who asks. The start-up waits up to 10 seconds in all, since lists and totals that it
// does not get are missing later. A query waits up to a second, with the connection in its hands;
// after one such wait in vain nothing waits for ten seconds. An edit over the bus (EntryEdit) waits
// up to 5 seconds, and for one second after a wait in vain, while others use the connection. A
// RowBatch does not wait, but for readers of a file without a write-ahead log, a tenth of a second.
//
// All functions return 1 for success and 0 for failure unless said otherwise. Table names are the
// lists' names: letters, digits and underscores. Values are pasted into statement texts of at most
// 299 bytes: a value with a single quote, or a text that would be longer, makes the call fail.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string_view>

struct sqlite3;

// Of what is read: it could not be, since another process holds the file, say, but may be later.
inline constexpr int READ_LATER = -1;

// Opens the database at its configured place as oDNS.db. Main thread, at start.
int open_stats_database();

// From now on queries are served, and no wait is one of the start-up any more. Main thread.
void end_start_up_waits();

// Opens `file` (created if missing; its directory is not) into `*db` and sets it up for many small
// writes on flash: a write-ahead log, or a truncated rollback journal on file systems that allow
// no shared mapping, or for this run while another process keeps the file locked. Returns an SQLite
// result code; as with sqlite3_open() the caller closes `*db` whatever the result.
int open_database(const char *file, sqlite3 **db);

// Whether the connection may wait for another process on behalf of a query. It does, unless queries
// leave their rows to the recorder; no call waits then but an edit. Main thread.
void let_queries_wait(bool wait);

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

// The same, and nothing that the thread does meanwhile waits for another process.
class ImpatientHold {
    const DatabaseHold hold_;
    const int patience_;

  public:
    ImpatientHold();
    ~ImpatientHold();
    ImpatientHold(const ImpatientHold &) = delete;
    ImpatientHold &operator=(const ImpatientHold &) = delete;
    sqlite3 *get() const { return hold_.get(); }
};

// Create the tables that are missing.
int create_stats_summary_table();
int create_traffic_table();
int create_list_stats_table(const char *table);

// Adds the entry `key` with match mode `opt`, or enables it again under a new id. A key that begins
// with '~' disables the entry named by its rest; one that begins with '#' is skipped as a comment.
// The key ends at its first line feed.
int create_frag_key(const char *key, int opt, const char *table);

// Disables the entry `key`; no such entry is a success too.
int remove_frag_key(const char *key, const char *table);

// The text of the entry with this id, disabled or not: a heap copy for the caller, or null.
char *get_frag_by_id(long id, const char *table);

// An edit of the entry `frag` by the owner: while it lives, what the calling thread does with the
// three functions above waits as edits do and is in the file for good when they return, whatever
// happens to the power. A hit of that entry which finds no row of it is no error meanwhile, since
// a list changes in memory first. One edit at a time; the texts must outlive it and may be null.
class EntryEdit {
    const char *table_;
    const char *frag_;

  public:
    EntryEdit(const char *table, const char *frag);
    ~EntryEdit();
    EntryEdit(const EntryEdit &) = delete;
    EntryEdit &operator=(const EntryEdit &) = delete;
    bool concerns(const char *table, std::string_view frag) const;
};

// What has to be done around an edit by who keeps rows back. At its begin (an EntryEdit comes to
// life), before each of its steps, with the connection kept from all others, and at its end.
struct EditHooks {
    void (*begin)();
    bool (*write_rows)(); // that came before the edit; false when they have to wait
    void (*end)();
};

// Sets them; null for none. Main thread.
void set_edit_hooks(const EditHooks *hooks);

// Ends the wait of an edit at once, and of all that follow. Main thread, at shutdown.
void end_edits();

// Passes each enabled entry to `take`, in the table's order; the texts may be empty and are gone
// when it returns. Returns 1, 0, or READ_LATER when another process holds the file.
int read_entries(const char *table, void (*take)(const char *frag, int opt, void *context),
                 void *context);

// The import of one list file: a transaction around its records, committed so that it survives a
// power failure. The connection is the calling thread's meanwhile.
class EntryImport {
    const DatabaseHold hold_;
    bool begun_;

  public:
    EntryImport();
    ~EntryImport(); // takes back what was not committed
    EntryImport(const EntryImport &) = delete;
    EntryImport &operator=(const EntryImport &) = delete;
    bool has_begun() const { return begun_; }
    // create_frag_key(). False when the database failed, and not the record.
    bool add(const char *key, int opt, const char *table);
    bool commit();
    const char *message() const; // why the last step failed
};

// A transaction around rows that are recorded while it lives, by the calling thread, which has the
// connection to itself meanwhile. A row that cannot be written for its own sake is refused with the
// line that it always has, and the others are written. What keeps all of them from being written,
// but may pass (another process, a full disk), is not logged: it holds up the batch, which is then
// taken back as a whole. Where no transaction can be had for a lasting reason, each row is written,
// or refused, by itself.
class RowBatch {
    const ImpatientHold hold_;

  public:
    RowBatch();
    ~RowBatch(); // takes back what was not committed
    RowBatch(const RowBatch &) = delete;
    RowBatch &operator=(const RowBatch &) = delete;
    bool is_held_up() const;
    // False when it is held up, and when it failed for a lasting reason, with a line in the log.
    bool commit();
    sqlite3 *get() const { return hold_.get(); }
};

// Records that the entry `frag` decided a query for `fqdn` by the client with address `ip`. Does
// nothing while record_traffic is 0.
int insert_list_record(const char *fqdn, const char *table, const char *frag, const char *ip);

// The same for a query of an earlier time, in seconds since the epoch, whatever record_traffic is.
int insert_past_list_record(const char *fqdn, const char *table, const char *frag, const char *ip,
                            int64_t time);

// Records one forwarded query.
int record_request(const char *fqdn, struct sockaddr_in client);
int record_request(const char *fqdn, const char *ip);

// Appends a snapshot of the counters.
int insert_stats_summary_record(uint64_t requests, uint64_t blocked, uint64_t resets,
                                uint64_t errors);

// Reads the newest snapshot; the counters keep their values when there is none. Returns 1, 0, or
// READ_LATER when there may be one that cannot be read now.
int get_stats_summary(uint64_t *requests, uint64_t *blocked, uint64_t *resets, uint64_t *errors);

// How many different clients dns_traffic names; -1 on failure.
int64_t get_unique_client_count();
