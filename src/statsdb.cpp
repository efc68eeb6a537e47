#include "statsdb.h"

#include "config.h"
#include "guards.h"
#include "log.h"
#include "netutils.h"
#include "uciutils.h"
#include "utils.h"

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <sqlite3.h>
#include <string_view>
#include <syslog.h>
#include <unistd.h>
#include <utility>

static constexpr char DATABASE_NAME[] = "vantrelle.db";
static constexpr int FILE_NAME_SIZE = 254;
static constexpr int STATEMENT_SIZE = 300;
static constexpr char WORD_CHARACTERS[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

// How long is waited, in milliseconds, for another process that holds the file. A query's rows must
// not get lost by a moment's lock, but whoever waits has the request lock: when that long was in
// vain, the rows that follow are not waited for.
static constexpr int64_t QUERY_WAIT_MS = 1000;
static constexpr int64_t PAUSE_AFTER_VAIN_WAIT_MS = 10000;
static constexpr int64_t START_UP_WAIT_MS = 10000; // of all its steps together
static constexpr int64_t EDIT_WAIT_MS = 5000;
static constexpr int64_t EDIT_WAIT_AFTER_VAIN_MS = 1000;
static constexpr useconds_t BUSY_STEP_US = 2000;
static constexpr int MAX_COMMITS = 50; // of a batch, a step apart
static constexpr useconds_t EDIT_STEP_US = 20000;

// --- statement texts -----------------------------------------------------------------------------

namespace {

// A table name within a statement, where no quotes protect the statement from it.
struct Table {
    const char *name;
};

// The text of one statement and the reason, if there is one, why it must not run. Every value is
// looked at before it is pasted, so that names from the network stay inside their quotes. A text
// without values is taken as it stands, percent signs included.
class Statement {
    char text_[STATEMENT_SIZE];
    int reason_ = SQLITE_OK;

    static bool is_word(const char *text) { return *text && !text[strspn(text, WORD_CHARACTERS)]; }
    // Nothing but a single quote can end a quoted SQL text.
    static bool can_be_pasted(const char *value) { return value && !strchr(value, '\''); }
    static bool can_be_pasted(Table table) { return table.name && is_word(table.name); }
    static bool can_be_pasted(long long) { return true; }

    static const char *printed(const char *value) { return shown(value); }
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
            reason_ = SQLITE_TOOBIG;
        if (!(can_be_pasted(values) && ...))
            reason_ = SQLITE_ERROR;
    }
    const char *text() const { return text_; }
    int reason() const { return reason_; }
};

// What every recorded query runs is compiled once per table and then run with bound values, since
// compiling costs several times as much as running. The text with the values pasted in still
// decides whether they are acceptable, and is what the log shows.
struct Recurring {
    const char *sql;  // with parameters, and "%s" for the table
    const char *text; // with conversions for table and values
};

} // namespace

static constexpr Recurring BEGIN = {"begin immediate", "begin immediate"};
static constexpr Recurring COMMIT = {"commit", "commit"};
static constexpr Recurring FIND_ENTRY = {"select id from %s where frag = ?",
                                         "select id from %s where frag = '%s'"};
static constexpr Recurring INSERT_CLIENT = {
    "insert into %s_stats ('frag_id', 'ip') values(?, ?)",
    "insert into %s_stats ('frag_id', 'ip') values(%ld , '%s')"};
static constexpr Recurring INSERT_PAST_CLIENT = {
    "insert into %s_stats ('frag_id', 'ip', 'timestamp') values(?, ?, ?)", INSERT_CLIENT.text};
static constexpr Recurring INSERT_NAME = {"insert or replace into %s_fqdn ('fqdn') values(?)",
                                          "insert or replace into %s_fqdn ('fqdn') values('%s')"};
static constexpr Recurring INSERT_HIT = {
    "insert into %s_hit ('fqdn_id', 'stats_id') values(?, ?)",
    "insert into %s_hit ('fqdn_id', 'stats_id') values(%lld, %lld)"};
static constexpr Recurring INSERT_TRAFFIC = {
    "insert into dns_traffic ('fqdn', 'ip') values(?, ?)",
    "insert into dns_traffic ('fqdn', 'ip') values('%s', '%s')"};

// --- the connection ------------------------------------------------------------------------------

// Guards the handle in oDNS.db, what was compiled for it and all variables of this section: the bus
// thread runs before it is opened and while it is closed.
static RecursiveMutex handle_lock;

namespace {

struct Compiled {
    const Recurring *statement;
    char table[24];
    sqlite3_stmt *compiled;
};

} // namespace

// Room for four statements of each of six lists, and for those without list.
static Compiled compiled[32];

static void drop_compiled() {
    for (Compiled &entry : compiled) {
        sqlite3_finalize(entry.compiled);
        entry = {};
    }
}

// The compiled statement for a table; null when it does not compile.
static sqlite3_stmt *compile_once(sqlite3 *db, const Recurring &statement, const char *table) {
    Compiled *entry = compiled;
    for (; entry != std::end(compiled) && entry->compiled; entry++)
        if (entry->statement == &statement && strcmp(entry->table, table) == 0)
            return entry->compiled;
    if (entry == std::end(compiled)) { // more tables than lists
        drop_compiled();
        entry = compiled;
    }
    char sql[STATEMENT_SIZE];
    snprintf(sql, sizeof sql, statement.sql, table);
    sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &entry->compiled, nullptr);
    entry->statement = &statement;
    snprintf(entry->table, sizeof entry->table, "%s", table);
    return entry->compiled;
}

namespace {

// A statement that can be run: finalised at the end of its scope or, when it recurs, reset. Null
// when it did not compile.
class Prepared {
    sqlite3_stmt *statement_;
    bool recurs_;

  public:
    explicit Prepared(sqlite3_stmt *statement = nullptr, bool recurs = false)
        : statement_(statement), recurs_(recurs) {}
    Prepared(Prepared &&other) noexcept
        : statement_(std::exchange(other.statement_, nullptr)), recurs_(other.recurs_) {}
    Prepared &operator=(Prepared &&) = delete;
    ~Prepared() { recurs_ ? sqlite3_reset(statement_) : sqlite3_finalize(statement_); }
    explicit operator bool() const { return statement_; }

    void bind(int at, const char *text) {
        sqlite3_bind_text(statement_, at, text, -1, SQLITE_STATIC);
    }
    void bind(int at, long long number) { sqlite3_bind_int64(statement_, at, number); }
    // An SQLite result code: SQLITE_ROW while there are rows, SQLITE_DONE at the end.
    int step() { return statement_ ? sqlite3_step(statement_) : SQLITE_ERROR; }
    bool step_to_row() { return step() == SQLITE_ROW; }
    int number(int column) const { return sqlite3_column_int(statement_, column); }
    // "" for a null.
    const char *text(int column) const {
        const unsigned char *text = sqlite3_column_text(statement_, column);
        return text ? reinterpret_cast<const char *>(text) : "";
    }
};

} // namespace

// Runs statements that may fail without harm.
static void attempt(sqlite3 *db, const char *sql) {
    sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// Whether commits append to the log without waiting for the disk, but where they are told to.
static bool commits_lazily;

// Whether commits wait for the disk. Not within a transaction. Whoever turns it on turns it off
// again; a rollback journal does so all the time.
static bool set_full_sync(sqlite3 *db, bool on) {
    return !commits_lazily ||
           sqlite3_exec(db, on ? "pragma synchronous=full" : "pragma synchronous=normal", nullptr,
                        nullptr, nullptr) == SQLITE_OK;
}

namespace {

// The connection for the life of a scope. Meanwhile no other thread can close it, replace the
// message of a failed statement or insert between an insert and the asking for its row id.
class Connection {
    const DatabaseHold hold_;
    sqlite3 *const db_ = hold_.get();
    int reason_ = SQLITE_OK;

    static void bind(Prepared &, int &, Table) {}
    template <typename Value>
    static void bind(Prepared &statement, int &at, Value value) {
        statement.bind(++at, value);
    }
    static const char *table_of(Table table) { return table.name; }
    template <typename Value>
    static const char *table_of(Value) {
        return nullptr;
    }

  public:
    // Why the last statement failed.
    const char *message() const {
        return reason_ == SQLITE_OK ? sqlite3_errmsg(db_) : sqlite3_errstr(reason_);
    }
    int code() const { return reason_ == SQLITE_OK ? sqlite3_errcode(db_) : reason_; }
    bool is_locked_out() const { return code() == SQLITE_BUSY; }
    bool set_full_sync(bool on) { return !db_ || ::set_full_sync(db_, on); }
    long long last_row_id() const { return sqlite3_last_insert_rowid(db_); }

    // Null on failure. Whatever follows the first statement of a text is not compiled.
    Prepared prepare(const Statement &sql) {
        reason_ = db_ ? sql.reason() : SQLITE_CANTOPEN;
        sqlite3_stmt *statement = nullptr;
        if (reason_ == SQLITE_OK)
            sqlite3_prepare_v3(db_, sql.text(), -1, 0, &statement, nullptr);
        return Prepared(statement);
    }
    bool run(const Statement &sql) {
        Prepared statement = prepare(sql);
        return statement && statement.step() == SQLITE_DONE;
    }
    // The same for a statement that recurs, and whose text with the values is `sql`. The values
    // must outlive the result.
    template <typename... Values>
    Prepared prepare(const Recurring &recurring, const Statement &sql, Values... values) {
        reason_ = db_ ? sql.reason() : SQLITE_CANTOPEN;
        if (reason_ != SQLITE_OK)
            return Prepared();
        const char *table = "";
        ((table = table_of(values) ? table_of(values) : table), ...);
        Prepared statement(compile_once(db_, recurring, table), true);
        [[maybe_unused]] int at = 0; // some have no values
        if (statement)
            (bind(statement, at, values), ...);
        return statement;
    }
    void end_transaction() {
        if (db_ && !sqlite3_get_autocommit(db_))
            attempt(db_, "commit");
        if (db_ && !sqlite3_get_autocommit(db_))
            attempt(db_, "rollback");
    }
};

} // namespace

// A debug line of the database's own switch.
[[gnu::format(printf, 1, 2)]] static void trace(const char *format, ...) {
    if (!is_sql_debug())
        return;
    va_list values;
    va_start(values, format);
    vsyslog(LOG_DEBUG, format, values);
    va_end(values);
}

// The batch that the holder of the connection is in.
enum class Batch { NONE, OPEN, HELD_UP };
static Batch batch = Batch::NONE;

// Whether a failure may have passed in a while, and concerns all rows alike.
static bool may_pass(int code) {
    switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
    case SQLITE_INTERRUPT:
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
        return true;
    default:
        return false;
    }
}

// Whether a failed statement holds up the batch that it is in, so that nobody need hear of it.
static bool holds_up_batch(const Connection &connection) {
    if (batch == Batch::OPEN && may_pass(connection.code()))
        batch = Batch::HELD_UP;
    return batch == Batch::HELD_UP;
}

static bool report_failure(const Connection &connection, const Statement &sql) {
    if (holds_up_batch(connection))
        return false;
    syslog(LOG_ERR, "Couldn't execute sql statement: %s, %s", connection.message(), sql.text());
    return false;
}

// Runs a statement that recurs and whose failure is reported with the message and the statement.
template <typename... Values>
static bool execute(Connection &connection, const Recurring &recurring, Values... values) {
    const Statement sql(recurring.text, values...);
    return connection.prepare(recurring, sql, values...).step() == SQLITE_DONE ||
           report_failure(connection, sql);
}

// Prepares a query whose failure is reported with the message alone.
static Prepared query(Connection &connection, const Statement &sql) {
    Prepared statement = connection.prepare(sql);
    if (!statement && !holds_up_batch(connection))
        syslog(LOG_ERR, "Couldn't prepare sql statement: %s", connection.message());
    return statement;
}

// --- waiting for other processes -----------------------------------------------------------------

namespace {

// Who is asking, which decides how long is waited. The holder of the connection sets it.
enum class Patience { QUERY, START_UP, EDIT, NONE };

} // namespace

static Patience patience = Patience::QUERY;
static int64_t start_up_waited;

static bool may_start_up_wait(int64_t now, int tries) {
    static int64_t before;
    if (tries > 0)
        start_up_waited += now - before;
    before = now;
    return start_up_waited < START_UP_WAIT_MS;
}

static bool may_query_wait(int64_t now, int tries) {
    static int64_t begin, in_vain = -PAUSE_AFTER_VAIN_WAIT_MS;
    if (tries == 0)
        begin = now;
    if (now - in_vain < PAUSE_AFTER_VAIN_WAIT_MS)
        return false;
    if (now - begin < QUERY_WAIT_MS)
        return true;
    in_vain = now;
    return false;
}

// SQLite asks this whether to try again. Its caller has the connection to itself. An edit never
// waits here: change() gives the connection back meanwhile.
static int wait_for_other_process(void *, int tries) {
    const int64_t now = now_ms();
    const bool again = patience == Patience::START_UP ? may_start_up_wait(now, tries)
                       : patience == Patience::QUERY  ? may_query_wait(now, tries)
                                                      : false;
    if (again)
        usleep(BUSY_STEP_US);
    return again;
}

// --- the file ------------------------------------------------------------------------------------

// Whether the database is in journal mode `mode` after an attempt to put it there.
static bool set_journal_mode(sqlite3 *db, const char *mode) {
    const Statement sql("pragma journal_mode=%s", mode);
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v3(db, sql.text(), -1, 0, &statement, nullptr);
    Prepared pragma(statement);
    return pragma.step_to_row() && strcmp(pragma.text(0), mode) == 0;
}

// Whether the file system takes a write-ahead log, whose index lives in a shared writable mapping;
// JFFS2 takes none. Tried on a file of its own: a mode switch that fails half-way leaves a file
// that can no longer be read, and what another process does with the database does not matter here.
static bool can_keep_log(sqlite3 *db) {
    const char *file = sqlite3_db_filename(db, "main");
    if (!file || !*file)
        return false;
    char probe[PATH_MAX];
    snprintf(probe, sizeof probe, "%s-probe", file);
    sqlite3 *probed = nullptr;
    bool can = sqlite3_open(probe, &probed) == SQLITE_OK;
    attempt(probed, "pragma synchronous=off");
    can = can && set_journal_mode(probed, "wal") && // which opens the log with the next statement
          sqlite3_exec(probed, "create table t(x)", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(probed);
    for (const char *companion : {"", "-wal", "-shm", "-journal"}) {
        snprintf(probe, sizeof probe, "%s-probe%s", file, companion);
        unlink(probe);
    }
    return can;
}

// Uses a rollback journal, also for a file that was put into write-ahead mode elsewhere: with
// exclusive locking from the first access on, SQLite keeps the log's index on the heap, so that it
// can copy the log back and convert the file. The read at the end gives the lock back.
static const char *use_rollback_journal(sqlite3 *db) {
    attempt(db, "pragma locking_mode=exclusive");
    const bool done = set_journal_mode(db, "truncate");
    const char *result = done ? "using a rollback journal" : sqlite3_errmsg(db);
    if (done) {
        // What a system with such mappings left. Nobody can be using it while this lock is held.
        char index[PATH_MAX];
        snprintf(index, sizeof index, "%s-shm", sqlite3_db_filename(db, "main"));
        unlink(index);
    }
    return result;
}

// SQLite itself waits for readers only, and not for a writer.
static bool switch_to_log(sqlite3 *db) {
    for (int tries = 0; !set_journal_mode(db, "wal"); tries++)
        if (sqlite3_errcode(db) != SQLITE_BUSY || !wait_for_other_process(nullptr, tries))
            return false;
    return true;
}

static void choose_journal(sqlite3 *db) {
    commits_lazily = false;
    const bool wanted = can_keep_log(db);
    if (wanted && switch_to_log(db)) {
        // A commit appends to the log without waiting for the flash. A power failure can take the
        // last rows away but cannot damage the file; a killed process loses nothing.
        commits_lazily = true;
        attempt(db, "pragma synchronous=normal; pragma wal_autocheckpoint=256;"
                    "pragma journal_size_limit=1048576");
        return;
    }
    // A lock that outlasted the wait leaves the journal as it is: taking the file for ourselves
    // would fail for the same reason.
    syslog(LOG_INFO, "Stats database without write-ahead log, %s",
           wanted ? sqlite3_errmsg(db) : use_rollback_journal(db));
    attempt(db, wanted ? "pragma journal_mode=truncate"
                       : "pragma locking_mode=normal; select count(*) from sqlite_master");
}

// --- edits ---------------------------------------------------------------------------------------

// The edit that the calling thread makes, null for a query's thread.
static thread_local const EntryEdit *own_edit;

// The edit that is under way, for all threads.
static pthread_mutex_t edit_lock = PTHREAD_MUTEX_INITIALIZER;
static const EntryEdit *edit_under_way;

static std::atomic<bool> edits_must_end;
static std::atomic<bool> edit_was_in_vain;

static bool is_edit_over(int64_t begin) {
    if (edits_must_end)
        return true;
    if (now_ms() - begin < (edit_was_in_vain ? EDIT_WAIT_AFTER_VAIN_MS : EDIT_WAIT_MS))
        return false;
    edit_was_in_vain = true;
    return true;
}

static std::atomic<const EditHooks *> edit_hooks;

void set_edit_hooks(const EditHooks *hooks) {
    edit_hooks = hooks;
}

// Writes what was kept back until this edit. Whether the edit need not wait for another process for
// the sake of that.
static bool write_rows_before_edit(const Connection &connection) {
    const EditHooks *hooks = edit_hooks;
    return !hooks || hooks->write_rows() || !connection.is_locked_out();
}

// Runs `step(connection)`, which returns whether it worked; a failure is passed to
// `report(connection)`. In an edit a step is synchronised fully and, when another process holds the
// file, repeated; between two attempts the connection is free for others.
template <typename Step, typename Report>
static bool change(Step step, Report report) {
    const int64_t begin = now_ms();
    for (;; usleep(EDIT_STEP_US)) {
        Connection connection;
        if (!own_edit)
            return step(connection) || (report(connection), false);
        const Patience before = std::exchange(patience, Patience::EDIT);
        const bool done = write_rows_before_edit(connection) && connection.set_full_sync(true) &&
                          step(connection);
        const bool failed = !done && (!connection.is_locked_out() || is_edit_over(begin));
        if (failed)
            report(connection);
        connection.set_full_sync(false);
        patience = before;
        if (done)
            edit_was_in_vain = false;
        if (done || failed)
            return done;
    }
}

EntryEdit::EntryEdit(const char *table, const char *frag) : table_(table), frag_(frag) {
    if (const EditHooks *hooks = edit_hooks)
        hooks->begin();
    own_edit = this;
    const MutexGuard guard(edit_lock);
    edit_under_way = this;
}

EntryEdit::~EntryEdit() {
    if (const EditHooks *hooks = edit_hooks)
        hooks->end();
    own_edit = nullptr;
    const MutexGuard guard(edit_lock);
    edit_under_way = nullptr;
}

bool EntryEdit::concerns(const char *table, std::string_view frag) const {
    return table_ && frag_ && strcmp(table, table_) == 0 &&
           frag == std::string_view(frag_, strcspn(frag_, "\n"));
}

static bool is_being_edited(const char *table, const char *frag) {
    const MutexGuard guard(edit_lock);
    return edit_under_way && edit_under_way->concerns(table, frag);
}

void end_edits() {
    edits_must_end = true;
}

// --- opening and closing -------------------------------------------------------------------------

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

ImpatientHold::ImpatientHold()
    : patience_(static_cast<int>(std::exchange(patience, Patience::NONE))) {}

ImpatientHold::~ImpatientHold() {
    patience = static_cast<Patience>(patience_);
}

int open_database(const char *file, sqlite3 **db) {
    *db = nullptr;
    if (sqlite3_threadsafe() != 1)
        return SQLITE_MISUSE;
    const int result = sqlite3_open(file, db);
    if (result != SQLITE_OK)
        return result;
    sqlite3_busy_handler(*db, wait_for_other_process, nullptr);
    choose_journal(*db);
    // In kibibytes: the router has 64 MB, and the tables are read by their keys.
    attempt(*db, "pragma cache_size=-512");
    return SQLITE_OK;
}

int open_stats_database() {
    {
        const MutexGuard guard(handle_lock);
        patience = Patience::START_UP;
        start_up_waited = 0;
    }
    const OwnedText location(get_stats_db_location());
    if (location) {
        syslog(LOG_DEBUG, "Stats Database Location: %s", location.get());
    } else {
        // This run keeps going without a location, and so without a database.
        syslog(LOG_ERR, "Stats Database Location Not set");
        set_stats_db_location(oDNS.path);
    }
    char file[FILE_NAME_SIZE];
    snprintf(file, sizeof file, "%s/%s", shown(location.get()), DATABASE_NAME);
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
    } else {
        syslog(LOG_ERR, "Error opening stats database %s, %s", file,
               db ? sqlite3_errmsg(db) : sqlite3_errstr(result));
    }
    return result == SQLITE_OK;
}

void end_start_up_waits() {
    const MutexGuard guard(handle_lock);
    patience = Patience::QUERY;
}

void let_queries_wait(bool wait) {
    const MutexGuard guard(handle_lock);
    patience = wait ? Patience::QUERY : Patience::NONE;
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
    const bool done = change([&](Connection &connection) { return connection.run(sql); },
                             [&](const Connection &connection) {
                                 syslog(LOG_ERR, "SQL error inserting list key %s into %s: %s",
                                        frag, table, connection.message());
                             });
    if (done)
        syslog(LOG_DEBUG, "Inserted %s into %s", frag, table);
    return done;
}

int remove_frag_key(const char *key, const char *table) {
    if (!key || !*key || !table)
        return 0;
    const Statement sql("update %s set disabled=true where frag='%s'", Table{table}, key);
    trace("SQL Key remove: %s", sql.text());
    const bool done = change([&](Connection &connection) { return connection.run(sql); },
                             [&](const Connection &connection) {
                                 syslog(LOG_ERR, "SQL error deactivating list key %s into %s: %s",
                                        key, table, connection.message());
                             });
    if (done)
        trace("Disabled %s in %s", key, table);
    return done;
}

// Steps to the row of get_frag_by_id(). False when the statement failed; no row leaves `frag` null.
static bool read_frag(Prepared statement, OwnedText &frag) {
    if (!statement)
        return false;
    trace("get_frag_by_id was successful");
    const int result = statement.step();
    if (result != SQLITE_ROW)
        return result == SQLITE_DONE;
    trace("Stepped ok");
    const char *text = statement.text(0);
    if (*text) {
        trace("Found frag record: %s", text);
        frag.reset(strdup(text));
    }
    return true;
}

char *get_frag_by_id(long id, const char *table) {
    const Statement sql("select frag, opt from %s where id = %ld", Table{table}, id);
    OwnedText frag;
    change([&](Connection &connection) { return read_frag(connection.prepare(sql), frag); },
           [&](const Connection &connection) {
               syslog(LOG_ERR, "SQL error in get_frag_by_id %s, id: %ld: %s, SQL: %s",
                      connection.message(), id, connection.message(), sql.text());
           });
    return frag.release();
}

int read_entries(const char *table, void (*take)(const char *frag, int opt, void *context),
                 void *context) {
    const Statement sql("select frag, opt from %s where disabled=false", Table{table});
    trace("Sql %s", sql.text());
    Connection connection;
    Prepared row = query(connection, sql);
    if (!row)
        return connection.is_locked_out() ? READ_LATER : 0;
    syslog(LOG_DEBUG, "After check");
    int result = SQLITE_ROW;
    while ((result = row.step()) == SQLITE_ROW)
        take(row.text(0), row.number(1), context);
    if (result == SQLITE_DONE)
        return 1;
    syslog(LOG_ERR, "Failed to read list %s: %s", table, connection.message());
    return connection.is_locked_out() ? READ_LATER : 0;
}

// --- the import of a list file -------------------------------------------------------------------

static bool execute(sqlite3 *db, const char *sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

EntryImport::EntryImport() {
    sqlite3 *db = hold_.get();
    begun_ = db && set_full_sync(db, true) && execute(db, "BEGIN");
}

EntryImport::~EntryImport() {
    sqlite3 *db = hold_.get();
    if (begun_ && !sqlite3_get_autocommit(db))
        execute(db, "ROLLBACK");
    if (db)
        set_full_sync(db, false);
}

// Whether a record is to blame for its failed statement and not the database. A statement that was
// kept out for its values has left no error code behind.
static bool is_record_failure(int code) {
    switch (code & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
    case SQLITE_TOOBIG:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
        return true;
    default:
        return false;
    }
}

bool EntryImport::add(const char *key, int opt, const char *table) {
    return create_frag_key(key, opt, table) || is_record_failure(sqlite3_errcode(hold_.get()));
}

bool EntryImport::commit() {
    return execute(hold_.get(), "COMMIT");
}

const char *EntryImport::message() const {
    return hold_.get() ? sqlite3_errmsg(hold_.get()) : sqlite3_errstr(SQLITE_CANTOPEN);
}

// --- batches of rows -----------------------------------------------------------------------------

RowBatch::RowBatch() {
    sqlite3 *db = hold_.get();
    if (db && execute(db, BEGIN.sql))
        batch = Batch::OPEN;
    else if (db && may_pass(sqlite3_errcode(db)))
        batch = Batch::HELD_UP;
}

RowBatch::~RowBatch() {
    sqlite3 *db = hold_.get();
    if (batch != Batch::NONE && db && !sqlite3_get_autocommit(db))
        execute(db, "rollback");
    batch = Batch::NONE;
}

bool RowBatch::is_held_up() const {
    return batch == Batch::HELD_UP;
}

// With a rollback journal a commit waits for those who read, and no new ones begin meanwhile.
bool RowBatch::commit() {
    sqlite3 *db = hold_.get();
    for (int tries = 1; batch == Batch::OPEN && !execute(db, COMMIT.sql); tries++) {
        const int code = sqlite3_errcode(db);
        if (!may_pass(code)) { // a damaged file, say: to try again would never end
            syslog(LOG_ERR, "Couldn't execute sql statement: %s, %s", sqlite3_errmsg(db),
                   COMMIT.text);
            return false;
        }
        if (code != SQLITE_BUSY || tries == MAX_COMMITS)
            batch = Batch::HELD_UP;
        usleep(BUSY_STEP_US);
    }
    return batch != Batch::HELD_UP;
}

// --- hits and requests ---------------------------------------------------------------------------

// Of a hit whose timestamp the table's default makes.
static constexpr int64_t NOW = INT64_MIN;

// The id of an entry; 0 when there is none. False when that could not be asked.
static bool find_entry(Connection &connection, const char *table, const char *frag, long &id) {
    const Statement sql(FIND_ENTRY.text, Table{table}, frag);
    Prepared statement = connection.prepare(FIND_ENTRY, sql, Table{table}, frag);
    const int result = statement.step();
    id = result == SQLITE_ROW ? statement.number(0) : 0;
    if (result == SQLITE_ROW || result == SQLITE_DONE)
        return true;
    // One that was compiled earlier fails only here, when its table is gone or locked.
    if (!holds_up_batch(connection))
        syslog(LOG_ERR, "Couldn't prepare sql statement: %s", connection.message());
    return false;
}

// Runs the begin or the commit around a hit's inserts, unless they are part of a batch. A failure
// is reported with the insert that it keeps from being written.
static bool frame(Connection &connection, const Recurring &recurring, const Statement &insert) {
    return batch != Batch::NONE ||
           connection.prepare(recurring, Statement(recurring.text)).step() == SQLITE_DONE ||
           report_failure(connection, insert);
}

static bool insert_client(Connection &connection, const Statement &sql, const char *table, long id,
                          const char *ip, int64_t time) {
    const int result = time == NOW
                           ? connection.prepare(INSERT_CLIENT, sql, Table{table}, id, ip).step()
                           : connection
                                 .prepare(INSERT_PAST_CLIENT, sql, Table{table}, id, ip,
                                          static_cast<long long>(time))
                                 .step();
    return result == SQLITE_DONE || report_failure(connection, sql);
}

// The three rows of one hit, in one transaction, since every commit costs about as much as the
// rest. When one of them fails, the caller's end_transaction() keeps those before it.
static bool insert_hit(Connection &connection, const char *table, long id, const char *fqdn,
                       const char *ip, int64_t time) {
    const Statement insert(INSERT_CLIENT.text, Table{table}, id, ip);
    if (!frame(connection, BEGIN, insert) ||
        !insert_client(connection, insert, table, id, ip, time))
        return false;
    const long long stats_id = connection.last_row_id();
    // A name seen before gets a fresh row; older hits keep the id of the row it had then.
    if (!execute(connection, INSERT_NAME, Table{table}, fqdn))
        return false;
    const long long fqdn_id = connection.last_row_id();
    trace("FQDN_ID: %lld", fqdn_id);
    return execute(connection, INSERT_HIT, Table{table}, fqdn_id, stats_id) &&
           frame(connection, COMMIT, Statement(INSERT_HIT.text, Table{table}, fqdn_id, stats_id));
}

int insert_list_record(const char *fqdn, const char *table, const char *frag, const char *ip) {
    return oDNS.record_traffic ? insert_past_list_record(fqdn, table, frag, ip, NOW) : 1;
}

int insert_past_list_record(const char *fqdn, const char *table, const char *frag, const char *ip,
                            int64_t time) {
    trace("Starting insert stats record: %s", shown(frag));
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
    if (id <= 0 && is_being_edited(table, frag)) {
        syslog(LOG_DEBUG, "No row of %s for %s yet, hit not recorded", table, frag);
        return 0;
    }
    if (id <= 0) {
        syslog(LOG_ERR,
               "Stats record insert cannot locate %s record for frag: %s. This should never happen",
               table, frag);
        return 0;
    }
    const bool done = insert_hit(connection, table, id, fqdn, ip, time);
    if (batch == Batch::NONE)
        connection.end_transaction();
    if (done)
        trace("Done doing the inserts");
    return done;
}

int record_request(const char *fqdn, struct sockaddr_in client) {
    return record_request(fqdn, socket2ip(client));
}

int record_request(const char *fqdn, const char *ip) {
    Connection connection;
    return execute(connection, INSERT_TRAFFIC, fqdn, ip);
}

int64_t get_unique_client_count() {
    const Statement sql("select count(distinct ip) from dns_traffic");
    syslog(LOG_DEBUG, "Sql %s", sql.text());
    Connection connection;
    Prepared statement = query(connection, sql);
    if (!statement)
        return -1;
    int64_t count = 0;
    if (statement.step_to_row()) {
        syslog(LOG_DEBUG, "Got a row of client count");
        count = statement.number(0);
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
    return connection.run(sql) || report_failure(connection, sql);
}

// Whether a table that could not be read may have rows all the same. There are none in a file that
// is no database or could not be opened, nor in a table that is missing.
static bool may_hold_rows(int code) {
    return code != SQLITE_ERROR && code != SQLITE_NOTADB && code != SQLITE_CANTOPEN &&
           code != SQLITE_MISUSE;
}

int get_stats_summary(uint64_t *requests, uint64_t *blocked, uint64_t *resets, uint64_t *errors) {
    const Statement sql("select * from summary order by id desc limit 1");
    trace("Sql %s", sql.text());
    Connection connection;
    Prepared statement = query(connection, sql);
    if (!statement)
        return may_hold_rows(connection.code()) ? READ_LATER : 0;
    const int result = statement.step();
    if (result == SQLITE_ROW) {
        trace("Got a row of stats");
        // Read as signed 32-bit numbers: a counter beyond 2147483647 comes back as another one.
        int column = 1;
        for (uint64_t *counter : {requests, blocked, resets, errors})
            *counter = static_cast<uint64_t>(int64_t{statement.number(column++)});
    } else if (result != SQLITE_DONE) {
        if (!holds_up_batch(connection))
            syslog(LOG_ERR, "Couldn't prepare sql statement: %s", connection.message());
        return may_hold_rows(connection.code()) ? READ_LATER : 0;
    }
    syslog(LOG_DEBUG, "Before finalising statement");
    syslog(LOG_DEBUG, "Done reading stats");
    return 1;
}
