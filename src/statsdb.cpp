#include "statsdb.h"

#include "config.h"
#include "guards.h"
#include "netutils.h"
#include "server.h"
#include "uciutils.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <sqlite3.h>
#include <string_view>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr char DATABASE_NAME[] = "vantrelle.db";
constexpr int FILE_NAME_SIZE = 254;
constexpr int STATEMENT_SIZE = 300;
// Another process may hold the file for a moment, and no row must get lost by that. But whoever
// waits has the request lock: when that long was in vain, the rows that follow are not waited for.
constexpr int64_t BUSY_TIMEOUT_MS = 1000;
constexpr int64_t BUSY_PAUSE_MS = 10000;
constexpr char NULL_MARKER[] = "(null)";
constexpr char WORD_CHARACTERS[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

// --- statement texts -----------------------------------------------------------------------------

// A table name within a statement, where no quotes protect the statement from it.
struct Table {
    const char *name;
};

// The text of one statement and the reason, if there is one, why it must not run. Every value is
// looked at before it is pasted, so that names from the network stay inside their quotes. A text
// without values is taken as it stands, percent signs included.
class Statement {
    char text_[STATEMENT_SIZE];
    int refusal_ = SQLITE_OK;

    static bool is_word(const char *text) { return *text && !text[strspn(text, WORD_CHARACTERS)]; }
    // Nothing but a single quote can end a quoted SQL text.
    static bool can_be_pasted(const char *value) { return value && !strchr(value, '\''); }
    static bool can_be_pasted(Table table) { return table.name && is_word(table.name); }
    static bool can_be_pasted(long long) { return true; }

    static const char *printed(const char *value) { return value ? value : NULL_MARKER; }
    static const char *printed(Table table) { return printed(table.name); }
    template <typename Number>
    static Number printed(Number number) {
        return number;
    }

  public:
    template <typename... Values>
    explicit Statement(const char *format, Values... values) {
        int length = 0;
        if constexpr (sizeof...(values) == 0)
            length = snprintf(text_, sizeof text_, "%s", format);
        else
            length = snprintf(text_, sizeof text_, format, printed(values)...);
        if (length >= STATEMENT_SIZE)
            refusal_ = SQLITE_TOOBIG;
        if (!(can_be_pasted(values) && ...))
            refusal_ = SQLITE_ERROR;
    }
    const char *text() const { return text_; }
    int refusal() const { return refusal_; }
};

// --- the connection ------------------------------------------------------------------------------

struct FinalizeStatement {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Prepared = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Guards the handle in oDNS.db and what was compiled for it: the bus thread runs before it is
// opened and while it is closed.
RecursiveMutex handle_lock;

// What every recorded query runs is compiled once per table and then run with bound values, since
// compiling costs several times as much as running. The text with the values pasted in still
// decides whether they are acceptable, and is what the log shows.
struct Compiled {
    const char *format;
    char table[24];
    sqlite3_stmt *statement;
};
Compiled compiled[32]; // room for four statements of each of six lists, and for those without list

struct ResetStatement {
    void operator()(sqlite3_stmt *statement) const { sqlite3_reset(statement); }
};
using Running = std::unique_ptr<sqlite3_stmt, ResetStatement>;

// The text of a statement with a parameter where its format has a value.
void parametrise(const char *format, const char *table, char (&text)[STATEMENT_SIZE]) {
    size_t length = 0;
    const auto add = [&](const char *piece, size_t size) {
        size = std::min(size, sizeof text - 1 - length);
        memcpy(text + length, piece, size);
        length += size;
    };
    for (const char *at = format; *at;) {
        constexpr std::string_view VALUES[] = {"'%s'", "%lld", "%ld"};
        const auto *value = std::find_if(std::begin(VALUES), std::end(VALUES), [at](auto pattern) {
            return strncmp(at, pattern.data(), pattern.size()) == 0;
        });
        if (value != std::end(VALUES)) {
            add("?", 1);
            at += value->size();
        } else if (strncmp(at, "%s", 2) == 0) {
            add(table, strlen(table));
            at += 2;
        } else {
            add(at++, 1);
        }
    }
    text[length] = '\0';
}

void drop_compiled() {
    for (Compiled &entry : compiled) {
        sqlite3_finalize(entry.statement);
        entry = {};
    }
}

// The compiled statement of a format for a table; null when it does not compile.
sqlite3_stmt *compile_once(sqlite3 *db, const char *format, const char *table) {
    Compiled *entry = compiled;
    for (; entry != std::end(compiled) && entry->statement; entry++)
        if (entry->format == format && strcmp(entry->table, table) == 0)
            return entry->statement;
    if (entry == std::end(compiled)) { // more tables than lists
        drop_compiled();
        entry = compiled;
    }
    char text[STATEMENT_SIZE];
    parametrise(format, table, text);
    sqlite3_prepare_v3(db, text, -1, SQLITE_PREPARE_PERSISTENT, &entry->statement, nullptr);
    entry->format = format;
    snprintf(entry->table, sizeof entry->table, "%s", table);
    return entry->statement;
}

// Runs statements that may fail without harm.
void attempt(sqlite3 *db, const char *sql) {
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// The connection for the life of a scope. Meanwhile no other thread can close it, replace the
// message of a failed statement or insert between an insert and the asking for its row id.
class Connection {
    const DatabaseHold hold_;
    sqlite3 *const db_ = hold_.get();
    int refusal_ = SQLITE_OK;

    static const char *table_of(Table table) { return table.name; }
    template <typename Value>
    static const char *table_of(Value) {
        return nullptr;
    }
    static void bind(sqlite3_stmt *, int &, Table) {}
    static void bind(sqlite3_stmt *statement, int &at, const char *text) {
        sqlite3_bind_text(statement, ++at, text, -1, SQLITE_STATIC);
    }
    static void bind(sqlite3_stmt *statement, int &at, long long number) {
        sqlite3_bind_int64(statement, ++at, number);
    }

  public:
    // The same as prepare(Statement(format, values...)), for a format that recurs; `sql` is that
    // statement. The values must outlive the result.
    template <typename... Values>
    Running recur(const Statement &sql, const char *format, Values... values) {
        refusal_ = db_ ? sql.refusal() : SQLITE_CANTOPEN;
        if (refusal_ != SQLITE_OK)
            return nullptr;
        const char *table = "";
        ((table = table_of(values) ? table_of(values) : table), ...);
        Running statement(compile_once(db_, format, table));
        [[maybe_unused]] int at = 0; // some have no values
        if (statement)
            (bind(statement.get(), at, values), ...);
        return statement;
    }
    // Null on failure. Whatever follows the first statement of a text is not compiled.
    Prepared prepare(const Statement &sql) {
        refusal_ = db_ ? sql.refusal() : SQLITE_CANTOPEN;
        sqlite3_stmt *statement = nullptr;
        if (refusal_ == SQLITE_OK)
            sqlite3_prepare_v3(db_, sql.text(), -1, 0, &statement, nullptr);
        return Prepared(statement);
    }
    bool run(const Statement &sql) {
        const Prepared statement = prepare(sql);
        return statement && sqlite3_step(statement.get()) == SQLITE_DONE;
    }
    // Why the last prepare() or run() failed.
    const char *message() const {
        return refusal_ == SQLITE_OK ? sqlite3_errmsg(db_) : sqlite3_errstr(refusal_);
    }
    long long last_row_id() const { return sqlite3_last_insert_rowid(db_); }
    void end_transaction() {
        if (db_ && !sqlite3_get_autocommit(db_))
            attempt(db_, "commit");
        if (db_ && !sqlite3_get_autocommit(db_))
            attempt(db_, "rollback");
    }
};

// A debug line of the database's own switch.
[[gnu::format(printf, 1, 2)]] void trace(const char *format, ...) {
    if (!is_sql_debug())
        return;
    va_list values;
    va_start(values, format);
    vsyslog(LOG_DEBUG, format, values);
    va_end(values);
}

bool step_to_row(const Prepared &statement) {
    return sqlite3_step(statement.get()) == SQLITE_ROW;
}

// The first column of the row; "" for a null.
const char *first_text(const Prepared &statement) {
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement.get(), 0));
    return text ? text : "";
}

void report_failure(const Connection &connection, const Statement &sql) {
    syslog(LOG_ERR, "Couldn't execute sql statement: %s, %s", connection.message(), sql.text());
}

// Runs a statement that recurs and whose failure is reported with the message and the statement.
template <typename... Values>
bool execute(Connection &connection, const char *format, Values... values) {
    const Statement sql(format, values...);
    {
        const Running statement = connection.recur(sql, format, values...);
        if (statement && sqlite3_step(statement.get()) == SQLITE_DONE)
            return true;
    }
    report_failure(connection, sql);
    return false;
}

// The same for one that is rarely run.
bool run_or_report(Connection &connection, const Statement &sql) {
    if (connection.run(sql))
        return true;
    report_failure(connection, sql);
    return false;
}

// Prepares a query whose failure is reported with the message alone.
Prepared query(Connection &connection, const Statement &sql) {
    Prepared statement = connection.prepare(sql);
    if (!statement)
        syslog(LOG_ERR, "Couldn't prepare sql statement: %s", connection.message());
    return statement;
}

// --- the file ------------------------------------------------------------------------------------

// SQLite asks this whether to try again. Its caller has the connection to itself.
int wait_for_other_process(void *, int tries) {
    static int64_t begin, in_vain = -BUSY_PAUSE_MS;
    timespec clock;
    clock_gettime(CLOCK_MONOTONIC, &clock);
    const int64_t now = int64_t{clock.tv_sec} * 1000 + clock.tv_nsec / 1000000;
    if (tries == 0)
        begin = now;
    if (now - in_vain < BUSY_PAUSE_MS)
        return 0;
    if (now - begin < BUSY_TIMEOUT_MS)
        return sqlite3_sleep(2);
    in_vain = now;
    return 0;
}

// Whether the database is in journal mode `mode` after an attempt to put it there.
bool set_journal_mode(sqlite3 *db, const char *mode) {
    const Statement sql("pragma journal_mode=%s", mode);
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v3(db, sql.text(), -1, 0, &statement, nullptr);
    const Prepared owner(statement);
    if (!statement || !step_to_row(owner))
        return false;
    return strcmp(first_text(owner), mode) == 0;
}

// Whether the file system takes the shared writable mapping that the index of a write-ahead log
// lives in; JFFS2 refuses it. Asked of the file itself before the journal mode is touched: a mode
// switch that fails half-way leaves a file that can no longer be read. Must come before the first
// statement, because the mapping that it ends could be that of a log in use.
bool can_share_memory(sqlite3 *db) {
    constexpr int INDEX_REGION_BYTES = 32 * 1024;
    sqlite3_file *file = nullptr;
    sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    const sqlite3_io_methods *methods = file ? file->pMethods : nullptr;
    if (!methods || methods->iVersion < 2 || !methods->xShmMap)
        return false;
    void volatile *region = nullptr;
    const int result = methods->xShmMap(file, 0, INDEX_REGION_BYTES, 1, &region);
    methods->xShmUnmap(file, 0);
    return result == SQLITE_OK;
}

// Uses a rollback journal, also for a file that was put into write-ahead mode elsewhere: with
// exclusive locking from the first access on, SQLite keeps the log's index on the heap, so that it
// can copy the log back and convert the file. The read at the end gives the lock back.
void use_rollback_journal(sqlite3 *db) {
    attempt(db, "pragma locking_mode=exclusive");
    const bool done = set_journal_mode(db, "truncate");
    if (done) {
        // What the attempt to map it left. Nobody can be using it while this lock is held.
        char index[PATH_MAX];
        snprintf(index, sizeof index, "%s-shm", sqlite3_db_filename(db, "main"));
        unlink(index);
    }
    syslog(LOG_INFO, "Stats database without write-ahead log, %s",
           done ? "using a rollback journal" : sqlite3_errmsg(db));
    attempt(db, "pragma locking_mode=normal; select count(*) from sqlite_master");
}

} // namespace

DatabaseHold::DatabaseHold() {
    pthread_mutex_lock(&handle_lock.mutex);
    if (oDNS.db)
        sqlite3_mutex_enter(sqlite3_db_mutex(oDNS.db));
}

DatabaseHold::~DatabaseHold() {
    if (oDNS.db)
        sqlite3_mutex_leave(sqlite3_db_mutex(oDNS.db));
    pthread_mutex_unlock(&handle_lock.mutex);
}

sqlite3 *DatabaseHold::get() const {
    return oDNS.db;
}

int open_database(const char *file, sqlite3 **db) {
    *db = nullptr;
    if (sqlite3_threadsafe() != 1)
        return SQLITE_MISUSE;
    const int result = sqlite3_open(file, db);
    if (result != SQLITE_OK)
        return result;
    sqlite3_busy_handler(*db, wait_for_other_process, nullptr);
    // A commit appends to the log without waiting for the flash. A power failure can take the last
    // rows away but cannot damage the file; a killed process loses nothing.
    if (can_share_memory(*db) && set_journal_mode(*db, "wal"))
        attempt(*db, "pragma synchronous=normal; pragma wal_autocheckpoint=256;"
                     "pragma journal_size_limit=1048576");
    else
        use_rollback_journal(*db);
    // In kibibytes: the router has 64 MB, and the tables are read by their keys.
    attempt(*db, "pragma cache_size=-512");
    return SQLITE_OK;
}

int init_stats() {
    const OwnedText location(get_stats_db_location());
    if (location) {
        syslog(LOG_DEBUG, "Stats Database Location: %s", location.get());
    } else {
        // This run keeps going without a location, and so without a database.
        syslog(LOG_ERR, "Stats Database Location Not set");
        set_stats_db_location(oDNS.path);
    }
    char file[FILE_NAME_SIZE];
    snprintf(file, sizeof file, "%s/%s", location ? location.get() : NULL_MARKER, DATABASE_NAME);
    sqlite3 *db = nullptr;
    const int result = open_database(file, &db);
    {
        // A handle that failed to open is kept as well: it holds the reason for later messages.
        const MutexGuard guard(handle_lock);
        oDNS.db = db;
    }
    if (result == SQLITE_OK) {
        syslog(LOG_DEBUG, "Success opening stats database %s", file);
        syslog(LOG_INFO, "Successfully opened stats database");
        create_stats_summary_table();
        reload_stats();
    } else {
        syslog(LOG_ERR, "Error opening stats database %s, %s", file,
               db ? sqlite3_errmsg(db) : sqlite3_errstr(result));
    }
    create_traffic_table();
    return result == SQLITE_OK;
}

void close_database() {
    const MutexGuard guard(handle_lock);
    if (!oDNS.db)
        return;
    drop_compiled();
    set_journal_mode(oDNS.db, "delete");
    sqlite3_close(oDNS.db);
    oDNS.db = nullptr;
}

// --- tables --------------------------------------------------------------------------------------

int create_stats_summary_table() {
    Connection connection;
    if (!connection.run(Statement(
            "create table if not exists summary (id integer not null primary key autoincrement, "
            "req integer not null, blocked integer not null, reset integer not null, "
            "error integer not null)"))) {
        syslog(LOG_ERR, "SQL error creating summary table: SQL: %s", connection.message());
        return 0;
    }
    syslog(LOG_DEBUG, "Success create summary table if doesn't exist");
    return 1;
}

int create_traffic_table() {
    Connection connection;
    // The doubled percent sign reaches SQLite, so that every row gets the timestamp 0.
    if (!connection.run(
            Statement("create table if not exists dns_traffic (id integer not null primary key "
                      "autoincrement, fqdn varchar(256) not null, timestamp integer(4) default "
                      "(cast(strftime('%%s','now') as int)), ip varchar(15) )"))) {
        syslog(LOG_ERR, "SQL error creating traffic table: SQL: %s", connection.message());
        return 0;
    }
    syslog(LOG_DEBUG, "Success create traffic table if doesn't exist");
    return 1;
}

int create_list_stats_table(const char *table) {
    // Every "%s" of a statement takes the table name; a failure's take name, message, statement.
    struct Step {
        const char *statement;
        const char *failure;
        const char *success;
    };
    // "%_" is no conversion: whether those lines reach the log is up to the C library.
    static constexpr Step STEPS[] = {
        {"create table if not exists %s (id integer not null primary key autoincrement, "
         "frag varchar(256) not null, opt INT default 0, disabled BOOLEAN not null default false )",
         "SQL error creating %s: %s, SQL: %s", "Success DB %s create if doesn't exist"},
        {"create unique index if not exists %s_frag_idx on %s(frag)",
         "SQL error creating index %s: %s, SQL: %s", nullptr},
        {"create table if not exists %s_stats (id integer not null primary key autoincrement, "
         "frag_id integer not null, timestamp integer(4) default "
         "(cast(strftime('%%s','now') as int)), ip varchar(15), "
         "foreign key (frag_id) references %s (id) )",
         "SQL error creating %s_stats: %s", "Success DB %_stats create if doesn't exist"},
        {"create table if not exists %s_fqdn (id integer not null primary key autoincrement, "
         "fqdn varchar(256) not null unique)",
         "SQL error creating %s_fqdn: %s", "Success DB %_fqdn create if doesn't exist"},
        {"create table if not exists %s_hit (id integer not null primary key autoincrement, "
         "fqdn_id, stats_id, foreign key (fqdn_id) references %s_fqdn (id), "
         "foreign key (stats_id) references %s_stats (id) )",
         "SQL error creating %s_hit: %s", "Success DB %_hit create if doesn't exist"},
    };
    if (!table || !*table)
        return 0;
    Connection connection;
    syslog(LOG_DEBUG, "Verify stats table base file: %s", table);
    for (const Step &step : STEPS) {
        const Statement sql(step.statement, Table{table}, Table{table}, Table{table});
        if (&step == std::end(STEPS) - 1)
            trace("SQL: %s", sql.text());
        if (!connection.run(sql)) {
            syslog(LOG_ERR, step.failure, table, connection.message(), sql.text());
            return 0;
        }
        if (step.success)
            syslog(LOG_DEBUG, step.success, table);
    }
    return 1;
}

// --- list entries --------------------------------------------------------------------------------

int create_frag_key(const char *key, int opt, const char *table) {
    if (!key || !*key || !table)
        return 0;
    if (*key == '#') {
        syslog(LOG_DEBUG, "Skip commented line: %s", key);
        return 0;
    }
    char frag[STATEMENT_SIZE]; // what it cuts would not fit into the statement either
    snprintf(frag, sizeof frag, "%.*s", static_cast<int>(strcspn(key, "\n")), key);
    if (!*frag)
        return 0;
    const Statement sql =
        *frag == '~'
            ? Statement("update %s set disabled=true where frag='%s'", Table{table}, frag + 1)
            : Statement("replace into %s ('frag', 'disabled', 'opt') values('%s', 0, %d)",
                        Table{table}, frag, opt);
    syslog(LOG_DEBUG, "SQL Key insert: %s", sql.text());
    Connection connection;
    if (!connection.run(sql)) {
        syslog(LOG_ERR, "SQL error inserting list key %s into %s: %s", frag, table,
               connection.message());
        return 0;
    }
    syslog(LOG_DEBUG, "Inserted %s into %s", frag, table);
    return 1;
}

int remove_frag_key(const char *key, const char *table) {
    if (!key || !*key || !table)
        return 0;
    const Statement sql("update %s set disabled=true where frag='%s'", Table{table}, key);
    trace("SQL Key remove: %s", sql.text());
    Connection connection;
    if (!connection.run(sql)) {
        syslog(LOG_ERR, "SQL error deactivating list key %s into %s: %s", key, table,
               connection.message());
        return 0;
    }
    trace("Disabled %s in %s", key, table);
    return 1;
}

char *get_frag_by_id(long id, const char *table) {
    const Statement sql("select frag, opt from %s where id = %ld", Table{table}, id);
    Connection connection;
    const Prepared statement = connection.prepare(sql);
    if (!statement) {
        syslog(LOG_ERR, "SQL error in get_frag_by_id %s, id: %ld: %s, SQL: %s",
               connection.message(), id, connection.message(), sql.text());
        return nullptr;
    }
    trace("get_frag_by_id was successful");
    if (!step_to_row(statement))
        return nullptr;
    trace("Stepped ok");
    const char *frag = first_text(statement);
    if (!*frag)
        return nullptr;
    trace("Found frag record: %s", frag);
    return strdup(frag);
}

// --- hits and requests ---------------------------------------------------------------------------

// The id of an entry; 0 when there is none. False when that could not be asked.
static bool find_entry(Connection &connection, const char *table, const char *frag, long &id) {
    static constexpr char FORMAT[] = "select id from %s where frag = '%s'";
    const Running statement =
        connection.recur(Statement(FORMAT, Table{table}, frag), FORMAT, Table{table}, frag);
    const int result = statement ? sqlite3_step(statement.get()) : SQLITE_ERROR;
    id = result == SQLITE_ROW ? sqlite3_column_int(statement.get(), 0) : 0;
    // One that was compiled earlier fails here when its table is gone.
    if (result == SQLITE_ERROR)
        syslog(LOG_ERR, "Couldn't prepare sql statement: %s", connection.message());
    return result != SQLITE_ERROR;
}

// The three rows of one hit. The caller puts one transaction around them, since every commit costs
// about as much as the rest; when one of them fails, those before it stay all the same.
static bool insert_hit(Connection &connection, const char *table, long id, const char *fqdn,
                       const char *ip) {
    if (!execute(connection, "insert into %s_stats ('frag_id', 'ip') values(%ld , '%s')",
                 Table{table}, id, ip))
        return false;
    const long long stats_id = connection.last_row_id();
    // A name seen before gets a fresh row; older hits keep the id of the row it had then.
    if (!execute(connection, "insert or replace into %s_fqdn ('fqdn') values('%s')", Table{table},
                 fqdn))
        return false;
    const long long fqdn_id = connection.last_row_id();
    trace("FQDN_ID: %lld", fqdn_id);
    return execute(connection, "insert into %s_hit ('fqdn_id', 'stats_id') values(%lld, %lld)",
                   Table{table}, fqdn_id, stats_id);
}

int insert_list_record(const char *fqdn, const char *table, const char *frag, const char *ip) {
    if (!oDNS.record_traffic)
        return 1;
    trace("Starting insert stats record: %s", frag ? frag : NULL_MARKER);
    if (!frag || !*frag)
        return 0;
    trace("record is not null or empty");
    if (fqdn && strcmp(fqdn, "localhost") == 0) {
        syslog(LOG_DEBUG, "Skip collecting stats on localhost");
        return 1;
    }
    Connection connection;
    long id = 0;
    if (!find_entry(connection, table, frag, id))
        return 0;
    if (id <= 0) {
        syslog(LOG_ERR,
               "Stats record insert cannot locate %s record for frag: %s. This should never happen",
               table, frag);
        return 0;
    }
    const bool done = execute(connection, "begin immediate") &&
                      insert_hit(connection, table, id, fqdn, ip) && execute(connection, "commit");
    connection.end_transaction();
    if (done)
        trace("Done doing the inserts");
    return done;
}

int record_request(const char *fqdn, struct sockaddr_in client) {
    Connection connection;
    return execute(connection, "insert into dns_traffic ('fqdn', 'ip') values('%s', '%s')", fqdn,
                   socket2ip(client));
}

int64_t get_unique_client_count() {
    const Statement sql("select count(distinct ip) from dns_traffic");
    syslog(LOG_DEBUG, "Sql %s", sql.text());
    Connection connection;
    const Prepared statement = query(connection, sql);
    if (!statement)
        return -1;
    int64_t count = 0;
    if (step_to_row(statement)) {
        syslog(LOG_DEBUG, "Got a row of client count");
        count = sqlite3_column_int(statement.get(), 0);
    }
    syslog(LOG_DEBUG, "Before finalising statement");
    syslog(LOG_DEBUG, "Done reading client count %lld", static_cast<long long>(count));
    return count;
}

// --- counters ------------------------------------------------------------------------------------

int insert_stats_summary_record(uint64_t requests, uint64_t blocked, uint64_t resets,
                                uint64_t errors) {
    const Statement sql("insert into summary ('req', 'blocked', 'reset', 'error') "
                        "values(%lld, %lld, %lld, %lld)",
                        static_cast<long long>(requests), static_cast<long long>(blocked),
                        static_cast<long long>(resets), static_cast<long long>(errors));
    trace("%s", sql.text());
    Connection connection;
    return run_or_report(connection, sql);
}

int get_stats_summary(uint64_t *requests, uint64_t *blocked, uint64_t *resets, uint64_t *errors) {
    const Statement sql("select * from summary order by id desc limit 1");
    trace("Sql %s", sql.text());
    Connection connection;
    const Prepared statement = query(connection, sql);
    if (!statement)
        return 0;
    if (step_to_row(statement)) {
        trace("Got a row of stats");
        // Read as signed 32-bit numbers: a counter beyond 2147483647 comes back as another one.
        int column = 1;
        for (uint64_t *counter : {requests, blocked, resets, errors})
            *counter =
                static_cast<uint64_t>(int64_t{sqlite3_column_int(statement.get(), column++)});
    }
    syslog(LOG_DEBUG, "Before finalising statement");
    syslog(LOG_DEBUG, "Done reading stats");
    return 1;
}
