#include "listload.h"

#include "config.h"
#include "guards.h"
#include "ioutils.h"
#include "list.h"
#include "statsdb.h"
#include "strutils.h"
#include "uciutils.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

// With the terminator: a longer line falls apart into several records.
static constexpr int RECORD_SIZE = 263;
static constexpr int SELECT_SIZE = 255;
static constexpr int SYNC_FULL = 2; // "pragma synchronous": a commit waits for the disk

// Names the list after its file: "/dir/black.lst" gives "black".
static void name_list(List *list, const char *path) {
    const char *slash = strrchr(path, '/');
    free(list->name);
    list->name = strdup(slash ? slash + 1 : path);
    if (list->name)
        strip_ext(&list->name);
}

// --- list files ----------------------------------------------------------------------------------

// Opens a regular file; anything else could keep the daemon waiting. Null on failure.
static OwnedFile open_list_file(const char *path, struct stat &status) {
    UniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return nullptr;
    OwnedFile file(fdopen(fd.get(), "r"));
    if (file)
        fd.release();
    return file;
}

// Whether a record is to blame for its failed statement and not the database. A statement that was
// refused for its values has left no error code behind.
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

// Writes one record into the table. False when the database, and not the record, made that fail.
static bool import_record(char *record, const char *table, sqlite3 *db) {
    syslog(LOG_DEBUG, "Line: %s", record);
    record[strcspn(record, "\n")] = '\0';
    int8_t opt = MATCH_CONTAINS;
    if (char *option = strchr(record, ',')) {
        *option++ = '\0';
        syslog(LOG_DEBUG, "Option: %s", option);
        if (isNumeric(option))
            opt = static_cast<int8_t>(decimal(option));
    }
    return create_frag_key(record, opt, table) || is_record_failure(sqlite3_errcode(db));
}

static bool execute(sqlite3 *db, const char *sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// The connection's "pragma synchronous"; -1 when it cannot be read.
static int sync_level(sqlite3 *db) {
    int level = -1;
    sqlite3_exec(
        db, "pragma synchronous",
        [](void *result, int, char **values, char **) {
            *static_cast<int *>(result) = values[0] ? atoi(values[0]) : -1;
            return 0;
        },
        &level, nullptr);
    return level;
}

static void set_sync_level(sqlite3 *db, int level) {
    char sql[32];
    snprintf(sql, sizeof sql, "pragma synchronous=%d", level);
    if (level >= 0)
        execute(db, sql);
}

static bool import_failed(const char *path, const char *reason) {
    syslog(LOG_ERR, "Failed to import list file %s, leaving it: %s", path, reason);
    return false;
}

// Imports all records in one transaction. False when that failed, and then nothing is changed.
static bool import_records(FILE *file, const char *path, const char *table, sqlite3 *db) {
    if (!execute(db, "BEGIN"))
        return import_failed(path, sqlite3_errmsg(db));
    char record[RECORD_SIZE];
    bool whole = true;
    while (whole && fgets(record, sizeof record, file))
        whole = import_record(record, table, db);
    if (whole && !ferror(file) && execute(db, "COMMIT"))
        return true;
    import_failed(path, ferror(file) ? "cannot read it" : sqlite3_errmsg(db));
    if (!sqlite3_get_autocommit(db))
        execute(db, "ROLLBACK");
    return false;
}

// The same, so that what is imported survives a power failure: the connection may be set up to
// commit without waiting for the disk, but the file is not deleted before its rows are there.
static bool import_file(FILE *file, const char *path, const List *list) {
    const DatabaseHold database;
    sqlite3 *db = database.get();
    if (!db || !list->tables_ready)
        return import_failed(path, "no database table");
    const int level = sync_level(db);
    set_sync_level(db, SYNC_FULL);
    const bool imported = import_records(file, path, list->name, db);
    set_sync_level(db, level);
    return imported;
}

// Whether the path still leads to what was read: somebody may have written on or dropped another
// file meanwhile.
static bool is_unchanged(const char *path, const struct stat &before) {
    struct stat now;
    return stat(path, &now) == 0 && now.st_dev == before.st_dev && now.st_ino == before.st_ino &&
           now.st_size == before.st_size && now.st_mtim.tv_sec == before.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
}

static void delete_file(const char *path, const struct stat &imported) {
    if (!is_unchanged(path, imported))
        import_failed(path, "it changed meanwhile");
    else if (unlink(path) == 0)
        syslog(LOG_INFO, "%s file deleted successfully.", path);
    else
        syslog(LOG_ERR, "Error %d deleting file %s", errno, path);
}

int _load_list_file(List *&list, const char *path) {
    syslog(LOG_DEBUG, "About to load list file %s", path);
    if (!is_empty_file(path)) {
        syslog(LOG_DEBUG, "File %s is not empty", path);
        struct stat status;
        OwnedFile file = open_list_file(path, status);
        if (!file) {
            syslog(LOG_ERR, "Error opening file: %s", path);
            return 0;
        }
        const bool imported = import_file(file.get(), path, list);
        file.reset();
        if (imported) {
            syslog(LOG_DEBUG, "Finished loading list file %s (%d)", path, get_list_size(list));
            delete_file(path, status);
        }
    }
    // Closes every run, also after an import.
    syslog(LOG_DEBUG, "List file %s is empty or does not exist", path);
    return 1;
}

// --- tables --------------------------------------------------------------------------------------

struct FinalizeSelect {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

// Adds the row that a select stands on. Rows that the list refuses stay enabled in the table.
static void add_row(List *list, sqlite3_stmt *row) {
    const auto *frag = reinterpret_cast<const char *>(sqlite3_column_text(row, 0));
    const int opt = sqlite3_column_int(row, 1);
    if (!frag || !*frag)
        return;
    if (is_sql_debug())
        syslog(LOG_DEBUG, "Found frag record: %s, opt: %d", frag, opt);
    add_item_copy(frag, static_cast<int8_t>(opt), list);
}

int _load_list_db(List *&list, const char *path) {
    name_list(list, path);
    list->tables_ready = create_list_stats_table(list->name);
    char sql[SELECT_SIZE];
    snprintf(sql, sizeof sql, "select frag, opt from %s where disabled=false",
             list->name ? list->name : "");
    if (is_sql_debug())
        syslog(LOG_DEBUG, "Sql %s", sql);
    const DatabaseHold database;
    sqlite3 *db = database.get();
    sqlite3_stmt *statement = nullptr;
    if (!db || sqlite3_prepare_v3(db, sql, -1, 0, &statement, nullptr) != SQLITE_OK) {
        syslog(LOG_ERR, "Couldn't prepare sql statement: %s",
               db ? sqlite3_errmsg(db) : sqlite3_errstr(SQLITE_CANTOPEN));
        return 0;
    }
    const std::unique_ptr<sqlite3_stmt, FinalizeSelect> select(statement);
    syslog(LOG_DEBUG, "After check");
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(statement)) == SQLITE_ROW)
        add_row(list, statement);
    if (result == SQLITE_DONE)
        return 1;
    syslog(LOG_ERR, "Failed to read list %s: %s", list->name, sqlite3_errmsg(db));
    return 0;
}

int _load_list(List *&list, const char *path) {
    name_list(list, path);
    syslog(LOG_INFO, "Loading %s list", list->name ? list->name : "(null)");
    list->tables_ready = create_list_stats_table(list->name);
    _load_list_file(list, path);
    return _load_list_db(list, path);
}
